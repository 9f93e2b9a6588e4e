// Help output: attributes, wrapping, early stop, unknown topics.
#include "support.hpp"

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
