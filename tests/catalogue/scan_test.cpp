// Building the catalogue: media record, scan, walk and the printed text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>

#include "catalogue/catalogue_fixture.h"
#include "media/json_file.h"
#include "support/mp4_builder.h"

namespace korvel {
namespace {

using namespace cataloguetest;
using ScanTest = CatalogueTest;

// "fileName" of every entry, in order.
Names names(const cJSON* entries) {
    Names n;
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, entries) {
        n.push_back(str(e, "fileName"));
    }
    return n;
}

// Entries as "entry+thumbnail+second", without the directory, sorted: readdir order is
// pinned elsewhere.
std::string outline(const cJSON* media) {
    Names out;
    const cJSON* e = nullptr;
    cJSON_ArrayForEach(e, media) {
        std::string s = str(e, "fileName").substr(9);
        for (const char* key : {"thumbnail", "second"}) {
            const cJSON* c = cJSON_GetObjectItemCaseSensitive(e, key);
            s += c ? "+" + str(c, "fileName").substr(9) : "";
        }
        out.push_back(s);
    }
    std::sort(out.begin(), out.end());
    std::string joined;
    for (const std::string& s : out) {
        joined += (joined.empty() ? "" : " ") + s;
    }
    return joined;
}

// Entries by extension in any case; companions only under their exact names, each type
// collecting only its own kinds; DNG never gets a thumbnail, photos never a second stream.
TEST_F(ScanTest, EachTypeListsItsEntriesWithTheCompanionsItCollects) {
    add_all("100MEDIA",
            {"A.JPG", "A.thm",  "B.jpg",   "B.THM", "C.JPG",     "C.THM", "C.thm", "D.JPG",
             "D.Thm", "D.2nd",  "E.DNG",   "E.thm", "F.MP4",     "F.THM", "F.2nd", "G.mp4",
             "G.2ND", "G.thm",  "H.JPG",   "H.mov", "H.thm",     "H.2nd", "I.dng", "J.MOV",
             "m.txt", "README", ".hidden", "n.",    "o.0001.JPG"});
    const std::string recent = "A.JPG B.jpg C.JPG D.JPG F.MP4 G.mp4 H.JPG H.mov J.MOV";
    const std::string cases[][2] = {
        {"0", ""},
        {"1",
         "A.JPG+A.thm B.jpg+B.THM C.JPG+C.thm D.JPG E.DNG F.MP4+F.THM+F.2nd G.mp4+G.thm "
         "H.JPG+H.thm H.mov+H.thm+H.2nd I.dng J.MOV"},
        {"2", "A.JPG B.jpg C.JPG D.JPG H.JPG"},
        {"3", "A.JPG+A.thm B.jpg C.JPG+C.thm D.JPG H.JPG+H.thm"},
        {"4", "E.DNG I.dng"},
        {"5", "F.MP4 G.mp4"},
        {"6", "F.MP4+F.THM+F.2nd G.mp4"},
        {"7", "F.MP4 G.mp4 H.mov J.MOV"},
        {"8", recent},  // 9 to 11 differ only in their limit, tested below
        {"12", ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0]);
        scan(static_cast<uint16_t>(std::stoi(c[0])));
        EXPECT_EQ(outline(media.get()), c[1]);
    }
}

TEST_F(ScanTest, OnlyRealDirectoriesNamedMediaTakeSlots) {
    add_all("100MEDIA", {"README", "LICENSE"});  // no extension anywhere: no slot
    add("101MEDIA", "v.MP4");                    // nothing selected, still a slot
    add("xMEDIAy", "p.JPG");
    add("102media", "q.JPG");  // the marker is case-sensitive
    add("REAL", "s.JPG");
    ASSERT_EQ(symlink("REAL", (location + "/LINKMEDIA").c_str()), 0);
    add("", "FILEMEDIA.JPG");
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    EXPECT_THAT(Names(ev->mediaDirNames.begin(), ev->mediaDirNames.begin() + 3),
                ::testing::UnorderedElementsAre("101MEDIA", "xMEDIAy", ""));
    EXPECT_EQ(names(media.get()), Names{"xMEDIAy-p.JPG"});
    use_location(in("", "FILEMEDIA.JPG"), 0, 0);  // a root that is no directory
    EXPECT_EQ(scan(CATALOGUE_JPG), -1);
}

// Slot order, then directory order, both as readdir gives them; the 101st slot is dropped.
// Slots without entries are the test above's.
TEST_F(ScanTest, EntriesFollowSlotThenDirectoryOrderForAHundredSlots) {
    for (int i = 0; i < 101; ++i) {
        add_all(std::to_string(100 + i) + "MEDIA", {"P.JPG", "Q.JPG", "R.JPG"});
    }
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names expected;
    for (const auto& dir : std::filesystem::directory_iterator(location)) {
        for (const auto& f : std::filesystem::directory_iterator(dir.path())) {
            expected.push_back(dir.path().filename().string() + "-" + f.path().filename().string());
        }
    }
    expected.resize(300);
    EXPECT_EQ(names(media.get()), expected);
}

// ctime cannot be set, so the boundary is checked at the file's real age on the server's
// clock (time() may lag a second); a pass in which the second ticked is repeated.
TEST_F(ScanTest, RecentMeansAtMostTheLimitSinceTheStatusChange) {
    std::string path = add("100MEDIA", "a.JPG");
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", path.c_str());
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    timespec ts{};
    bool checked = false;
    for (int attempt = 0; attempt < 50 && !checked; ++attempt) {
        clock_gettime(CLOCK_REALTIME, &ts);
        const time_t before = ts.tv_sec;
        const int32_t age = static_cast<int32_t>(before - st.st_ctime);
        const bool atAge = ev->is_recent(age), belowAge = ev->is_recent(age - 1);
        clock_gettime(CLOCK_REALTIME, &ts);
        checked = ts.tv_sec == before;
        EXPECT_TRUE(!checked || (atAge && !belowAge));
    }
    EXPECT_TRUE(checked);
    for (auto limit : {std::make_pair(8, 300), {9, 600}, {10, 1800}, {11, 3600}}) {
        EXPECT_EQ(recent_limit_seconds(limit.first), limit.second);
    }
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", in("100MEDIA", "gone").c_str());
    EXPECT_FALSE(ev->is_recent(3600));  // a file that cannot be examined is never recent
}

// Keys in order with their texts: "fileType" as written, the storage-id name, the file's own
// size and the date of the status change (not the modification time). How the tree is
// printed is the byte-identity test's; the facts of a record, the media-record test's.
TEST_F(ScanTest, EntriesNameTheirStorageAndDateTheStatusChange) {
    use_location(location, 1, 3);
    const std::string clip = add("100MEDIA", "V.Mp4", 2048);
    struct timeval old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(clip.c_str(), old), 0);
    ASSERT_EQ(scan(CATALOGUE_ALL), 0);
    struct stat st;
    ASSERT_EQ(lstat(clip.c_str(), &st), 0);
    char date[32];
    struct tm t;
    strftime(date, sizeof date, "%Y:%m:%d %H:%M:%S", localtime_r(&st.st_ctime, &t));
    std::string entry;
    for (const cJSON* item = media.get()->child->child; item != nullptr; item = item->next) {
        entry += std::string(item->string) + "=" + item->valuestring + " ";
    }
    EXPECT_EQ(entry, "fileType=Mp4 fileName=3-100MEDIA-V.Mp4 fileSize=2048 createDate=" +
                         std::string(date) +
                         " avgBitRate= frameRate= duration= imgWidth= imgHeight= codeFormat= ");
}

// Facts of one file as the metadata request reads them: nothing stale survives, media facts
// need an extension after the first dot, and track facts are read for MP4, MOV and second
// streams in any case (an overlong extension must not overflow).
TEST_F(ScanTest, MediaRecordReadsOnlyTheFactsItsExtensionAsksFor) {
    const std::string clip = testsupport::mp4_file(testsupport::moov(testsupport::trak({})));
    struct Case {
        const char* file;
        bool photo, withMedia;
        int rc;
        const char* width;
    } cases[] = {{"README", true, true, -1, ""},   {"TRAILING.", false, true, -1, ""},
                 {"README", true, false, 0, ""},   {"X.JPGJPGJPGJPGJPGJ", true, true, 0, ""},
                 {"c.Mov", false, true, 0, "640"}, {"c.2ND", false, true, 0, "640"},
                 {"c.txt", false, true, 0, ""},    {"c.MP4", false, false, 0, ""},
                 {"GONE.MP4", false, true, 0, ""}};
    CJSONFile record;
    testsupport::make_dirs(location + "/100MEDIA");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + (c.photo ? " photo" : " video"));
        const std::string path = in("100MEDIA", c.file);
        if (c.file[0] != 'G') {
            testsupport::write_file(path, clip);
        }
        for (char* f : {record.fileSize, record.createDate, record.maker, record.model,
                        record.width, record.height, record.resUnit, record.colourSpace,
                        record.duration, record.avgBitRate, record.frameRate, record.codeFormat}) {
            strcpy(f, "stale");
        }
        record.set_names((std::string("100MEDIA-") + c.file).c_str(), path.c_str());
        EXPECT_EQ(record.gather_facts(c.photo, c.withMedia), c.rc);
        Json o(cJSON_CreateObject());
        if (c.photo) {
            record.get_json_photo_param(o.get(), "JPG");
        } else {
            record.get_json_video_param(o.get(), "MP4");
        }
        EXPECT_EQ(str(o.get(), "imgWidth"), c.width);
        EXPECT_EQ(str(o.get(), "fileSize"), c.file[0] == 'G' ? "" : std::to_string(clip.size()));
        const cJSON* item = nullptr;
        cJSON_ArrayForEach(item, o.get()) {
            EXPECT_STRNE(item->valuestring, "stale");
        }
    }
}

}  // namespace
}  // namespace korvel
