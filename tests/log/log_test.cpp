// The log switch file, read afresh on every trace call, and the warning and fatal formats.
#include "log/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>

#include "core/config.h"
#include "support/temp_dir.h"

namespace korvel {
namespace {

// Each row replaces (or removes) the file and traces at once: a change takes effect at the
// next call.
TEST(LogSwitch, FileDecidesWhatIsPrintedAtEveryCall) {
    testsupport::TempDir card;
    testing_seam::set_sd_root(card.path().c_str());
    // The file's text (nullptr: no file), the trace's level, whether it is printed.
    const std::tuple<const char*, int, bool> cases[] = {
        {nullptr, 1, false}, {"1,0\n", 1, true},  {"1,-5\n", 1, true}, {"1,1\n", 1, false},
        {"1,1\n", 3, true},  {"0,0\n", 1, false}, {"abc\n", 1, false}, {"2,0\n", 1, false},
        {"1,0\n", 1, true},  {nullptr, 1, false},
    };
    for (const auto& [content, level, printed] : cases) {
        std::string conf = card.file("krv_log.conf");
        content ? testsupport::write_file(conf, content) : testsupport::remove_tree(conf);
        testing::internal::CaptureStdout();
        EXPECT_EQ(log_print(level, "%s", "line\n"), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), printed ? "line\n" : "")
            << (content ? content : "(none)") << " level " << level;
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
    for (size_t len : {1020u, 1021u, 3000u}) {  // the text is cut to 1023 characters
        testing::internal::CaptureStderr();
        errno = EPERM;
        log_warn("%s", std::string(len, 'x').c_str());
        std::string body = len == 1020 ? std::string(len, 'x') + ": O"
                                       : std::string(std::min<size_t>(len, 1023), 'x');
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "[Quillmere-warn] " + body + "\n");
    }
}

TEST(LogFatal, EndsTheProcessWithItsCodeAfterOneErrLine) {
    EXPECT_EXIT(log_fatal(1, "[ERROR],%sbind error!\n", "void g()"), testing::ExitedWithCode(1),
                "\\[Quillmere-err\\] \\[ERROR\\],void g\\(\\)bind error!");
}

}  // namespace
}  // namespace korvel
