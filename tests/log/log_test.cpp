// The log switch file, read afresh on every trace call, and the warning and fatal formats.
#include "log/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "core/config.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

// Each row replaces (or removes) the file and traces at once: a change takes effect at the
// next call.
TEST(LogSwitch, FileDecidesWhatIsPrintedAtEveryCall) {
    testsupport::TempDir card;
    testing_seam::set_sd_root(card.path().c_str());
    struct Case {
        const char* content;  // nullptr: no file
        int level;
        bool printed;
    } cases[] = {
        {nullptr, 1, false}, {"1,0\n", 1, true},  {"1,-5\n", 1, true}, {"1,1\n", 1, false},
        {"1,1\n", 3, true},  {"0,0\n", 1, false}, {"abc\n", 1, false}, {"2,0\n", 1, false},
        {"1,0\n", 1, true},  {nullptr, 1, false},
    };
    for (const Case& c : cases) {
        testsupport::remove_tree(card.file("krv_log.conf"));
        if (c.content != nullptr) {
            testsupport::write_file(card.file("krv_log.conf"), c.content);
        }
        testing::internal::CaptureStdout();
        EXPECT_EQ(log_print(c.level, "%s", "line\n"), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed ? "line\n" : "")
            << (c.content ? c.content : "(none)") << " level " << c.level;
    }
    testing_seam::set_sd_root(nullptr);
}

// The errno text is appended only while the message leaves room for it.
TEST(LogWarn, TagSignatureErrnoSuffixAndTheLimitOf1023Characters) {
    testing::internal::CaptureStderr();
    errno = ENOENT;
    log_warn("[WARN],%sset socket nonblock error!\n", "int32_t f(int)");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[Quillmere-warn] [WARN],int32_t f(int)set socket nonblock error!\n: No such file "
              "or directory\n");
    for (size_t len : {1020u, 1021u, 3000u}) {
        testing::internal::CaptureStderr();
        errno = EPERM;
        log_warn("%s", std::string(len, 'x').c_str());
        std::string out = testing::internal::GetCapturedStderr();
        std::string body = out.substr(17, out.size() - 18);  // without the tag and the newline
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
