// The log switch file, read afresh on every trace call, and the warning and fatal formats.
#include "log/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "core/config.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

class LogSwitch : public testing::Test {
protected:
    testsupport::TempDir card;
    void SetUp() override { testing_seam::set_sd_root(card.path().c_str()); }
    void TearDown() override { testing_seam::set_sd_root(nullptr); }
    void set_switch(const std::string& text) {
        testsupport::write_file(card.file("krv_log.conf"), text);
    }
    static std::string trace(int level, const char* text) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(log_print(level, "%s", text), 0);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(LogSwitch, FileDecidesWhatIsPrinted) {
    struct Case {
        const char* content;  // nullptr: no file
        int level;
        bool printed;
    } cases[] = {
        {nullptr, 1, false}, {"1,0\n", 1, true},  {"1,-5\n", 1, true}, {"1,1\n", 1, false},
        {"1,1\n", 3, true},  {"0,0\n", 1, false}, {"abc\n", 1, false}, {"2,0\n", 1, false},
    };
    for (const Case& c : cases) {
        testsupport::remove_tree(card.file("krv_log.conf"));
        if (c.content != nullptr) {
            set_switch(c.content);
        }
        EXPECT_EQ(trace(c.level, "line\n"), c.printed ? "line\n" : "")
            << (c.content ? c.content : "(none)") << " level " << c.level;
    }
}

TEST_F(LogSwitch, CreatingAndRemovingTheFileTakesEffectAtTheNextCall) {
    EXPECT_EQ(trace(1, "a"), "");
    set_switch("1,0\n");
    EXPECT_EQ(trace(1, "b"), "b");
    testsupport::remove_tree(card.file("krv_log.conf"));
    EXPECT_EQ(trace(1, "c"), "");
}

TEST(LogWarn, TagSignatureAndErrnoSuffix) {
    testing::internal::CaptureStderr();
    errno = ENOENT;
    log_warn("[WARN],%sset socket nonblock error!\n", "int32_t f(int)");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[Quillmere-warn] [WARN],int32_t f(int)set socket nonblock error!\n: No such file "
              "or directory\n");
}

// The errno text is appended only while the message leaves room for it.
TEST(LogWarn, LongTextsLoseTheSuffixAndStayWithin1023Characters) {
    for (size_t len : {1020u, 1021u, 3000u}) {
        std::string text(len, 'x');
        testing::internal::CaptureStderr();
        errno = EPERM;
        log_warn("%s", text.c_str());
        std::string out = testing::internal::GetCapturedStderr();
        std::string prefix = "[Quillmere-warn] ";
        std::string body = out.substr(prefix.size(), out.size() - prefix.size() - 1);
        if (len == 1020) {
            EXPECT_EQ(body.substr(1020, 2), ": ");
            EXPECT_LE(body.size(), 1023u);
        } else {
            EXPECT_EQ(body, std::string(std::min<size_t>(len, 1023), 'x'));
        }
    }
}

TEST(LogFatal, EndsTheProcessWithItsCodeAfterOneErrLine) {
    EXPECT_EXIT(log_fatal(1, "[ERROR],%sbind error!\n", "void g()"), testing::ExitedWithCode(1),
                "\\[Quillmere-err\\] \\[ERROR\\],void g\\(\\)bind error!");
}

}  // namespace
}  // namespace korvel
