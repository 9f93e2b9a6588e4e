// The natives of Table: entries stored, read, removed and tested by key.
#include "values.h"

using ambrix::Call;

namespace {

constexpr const char *kSelf = "Table is NULL";
constexpr ambrix::Messages kTable{kSelf, "CallBackFrontEnd is NULL"};
constexpr const char *kKey = "Index is NULL";

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Table_assign(JNIEnv *env, jobject self, jobject key, jobject value) {
    ambrix::valueOp<void>(env, self, kTable, {{key, kKey}, {value, "Value is NULL"}},
                          [](Call &call) { VexelTableAssign(call.kv(), call.self, call.args[0], call.args[1]); });
}

// The kernel gives a zero handle for a missing key without an error of its
// own; the entry found is wrapped in the same bracket.
JNIEXPORT jobject JNICALL Java_com_quorbit_ambrix_Table_select(JNIEnv *env, jobject self, jobject key) {
    return ambrix::valueOp<jobject>(env, self, kTable, {{key, kKey}}, [](Call &call) -> jobject {
        ALGEB entry = VexelTableSelect(call.kv(), call.self, call.args[0]);
        if (call.pending()) return nullptr;
        if (entry == nullptr) return ambrix::fail(call.env, "No such key in table"), nullptr;
        return call.wrap(entry);
    });
}

JNIEXPORT void JNICALL Java_com_quorbit_ambrix_Table_remove(JNIEnv *env, jobject self, jobject key) {
    ambrix::valueOp<void>(env, self, kTable, {{key, kKey}},
                          [](Call &call) { VexelTableDelete(call.kv(), call.self, call.args[0]); });
}

JNIEXPORT jboolean JNICALL Java_com_quorbit_ambrix_Table_has(JNIEnv *env, jobject self, jobject key) {
    return ambrix::valueOp<jboolean>(env, self, {kSelf, "Kernel Vector is NULL"}, {{key, kKey}}, [](Call &call) {
        return VexelTableHasEntry(call.kv(), call.self, call.args[0]) != 0;
    });
}

}  // extern "C"
