// Help output: attributes, wrapping, early stop, unknown topics.
#include "support.hpp"

#include <algorithm>

using namespace standin_test;

namespace {

struct Out {
    KernelVector kv = nullptr;
    std::string text;     // characters, with attributes written as <n>
    int stop_after = -1;  // characters before writeChar asks to stop
    bool raise_on_2 = false;
    int chars = 0;
};

int write_char(void *data, int c) {
    Out &o = *static_cast<Out *>(data);
    o.text += char(c);
    return ++o.chars == o.stop_after;
}

int write_attrib(void *data, int a) {
    Out &o = *static_cast<Out *>(data);
    if (a == 2 && o.raise_on_2) VexelRaiseError1(o.kv, "illegal attribute option: %1", ToVexelInteger(o.kv, a));
    o.text += "<" + std::to_string(a) + ">";
    return 0;
}

class Help : public KernelTest {
protected:
    Out out;
    std::string help(const char *topic, const char *section, int width = 0) {
        out.kv = kv;
        out.text.clear();
        out.chars = 0;
        char *msg = VexelHelp(kv, topic, section, write_char, write_attrib, width, &out);
        return msg ? msg : "";
    }
};

TEST_F(Help, SectionsAndAttributes) {
    EXPECT_EQ(help("print", "usage"), "");
    EXPECT_EQ(out.text, "<3>Usage<0>\nprint(<1>e1<0>, <1>e2<0>, ...)\n");
    EXPECT_EQ(help("lprint", "seealso"), "");
    EXPECT_EQ(out.text, "<3>See Also<0>\n<4>print<0>\n");
    EXPECT_EQ(help("Array", ""), "");
    for (const char *h : {"<3>Usage<0>", "<3>Description<0>", "<3>Examples<0>", "<3>See Also<0>"})
        EXPECT_NE(out.text.find(h), std::string::npos) << h;
    EXPECT_TRUE(rec.errors().empty());
}

TEST_F(Help, WrapsToTheWidth) {
    help("Array", "info", 30);
    std::string plain;
    for (size_t i = 0; i < out.text.size(); ++i) {
        if (out.text[i] == '<') i = out.text.find('>', i);
        else plain += out.text[i];
    }
    size_t start = 0, lines = 0;
    while (start < plain.size()) {
        size_t end = plain.find('\n', start);
        EXPECT_LE(end - start, 30u) << plain.substr(start, end - start);
        start = end + 1;
        ++lines;
    }
    EXPECT_GT(lines, 10u);
    help("Array", "info", 0);
    EXPECT_EQ(std::count(out.text.begin(), out.text.end(), '\n'), 2);  // heading and one long line
}

TEST_F(Help, StopsWhenACallbackAsks) {
    out.stop_after = 5;
    EXPECT_EQ(help("print", ""), "");
    EXPECT_EQ(out.text, "<3>Usage");
}

TEST_F(Help, UnknownTopicOrSection) {
    EXPECT_EQ(help("frobnicate", ""), "no help for frobnicate");
    EXPECT_EQ(help("print", "history"), "unknown help section history");
    EXPECT_TRUE(out.text.empty());
    EXPECT_TRUE(rec.errors().empty());
}

// The plain text of the last page, its attributes dropped.
std::string plain(const std::string &text) {
    std::string p;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '<') i = text.find('>', i);
        else p += text[i];
    }
    return p;
}

TEST_F(Help, TheIndexSaysWhatTheKernelComputesAndListsEveryTopicForUsers) {
    EXPECT_EQ(help("index", "info"), "");
    std::string info = plain(out.text);
    for (const char *said : {"stand-in", "takes its place by name", "int(x^2, x)", "unevaluated", "evalf(Pi)"})
        EXPECT_NE(info.find(said), std::string::npos) << said << " in " << info;
    EXPECT_EQ(help("index", "seealso"), "");
    std::string list = plain(out.text).substr(std::string("See Also\n").size());
    std::vector<std::string> topics;
    for (size_t start = 0; start < list.size();) {
        size_t end = list.find_first_of(", \n", start);
        if (end > start) topics.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    for (const char *topic : {"print", "sin", "Pi", "plot", "evalf", "Array", "readline"})
        EXPECT_NE(std::find(topics.begin(), topics.end(), topic), topics.end()) << topic;
    for (const char *hook : {"index", "failalloc", "textcallback", "attribute-test"})
        EXPECT_EQ(std::find(topics.begin(), topics.end(), hook), topics.end()) << hook;
    // Each listed page exists, and speaks of what a statement does, not of the kernel's interface.
    for (const std::string &topic : topics) {
        EXPECT_EQ(help(topic.c_str(), ""), "") << topic;
        std::string page = plain(out.text);
        if (topic == "callback" || topic == "streamcall") continue;  // their own names
        for (const char *internal : {"callback", "tag ", "embedder"})
            EXPECT_EQ(page.find(internal), std::string::npos) << "?" << topic << " speaks of " << internal;
    }
}

TEST_F(Help, AttributeTestRaisesThroughTheOperation) {
    EXPECT_EQ(help("attribute-test", ""), "");
    EXPECT_EQ(std::count(out.text.begin(), out.text.end(), '2'), 2);  // "<2>2"
    EXPECT_NE(out.text.find("<2>2<0>"), std::string::npos);
    out.raise_on_2 = true;
    EXPECT_EQ(help("attribute-test", ""), "");
    EXPECT_EQ(rec.errors(), std::vector<std::string>{"illegal attribute option: 2"});
    EXPECT_EQ(out.text.find("<2>"), std::string::npos);
    EXPECT_EQ(out.text.find("See Also"), std::string::npos);  // the raise ended the output
}

}  // namespace
