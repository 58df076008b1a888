// Building the catalogue: the media record, the scan (slots, selection per type, recent
// files), the walk (companions, order) and the printed text as a whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <sstream>
#include <string>

#include "catalogue/catalogue_fixture.h"
#include "catalogue/json_file.h"
#include "support/mp4_builder.h"

namespace korvel {
namespace {

using namespace cataloguetest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAreArray;
using ScanTest = CatalogueTest;

TEST_F(ScanTest, EachTypeSelectsItsEntriesAndCandidates) {
    tree.add_files("100MEDIA",
                   {"a.JPG", "b.jpg", "c.DNG", "d.dng", "e.MP4", "f.mp4", "g.MOV", "h.mov", "i.thm",
                    "j.THM", "k.2nd", "l.2ND", "m.txt", "README", ".hidden", "n.", "IMG.0001.JPG"});
    const Names jpg = {"a.JPG", "b.jpg"}, mp4 = {"e.MP4", "f.mp4"};
    const Names video = {"e.MP4", "f.mp4", "g.MOV", "h.mov"};
    const Names recent = {"a.JPG", "b.jpg", "e.MP4", "f.mp4", "g.MOV", "h.mov"};  // no DNG
    struct Case {
        uint16_t type;
        Names entries, extras;
    } cases[] = {{0, {}, {}},
                 {1,
                  {"a.JPG", "b.jpg", "c.DNG", "d.dng", "e.MP4", "f.mp4", "g.MOV", "h.mov"},
                  {"i.thm", "j.THM", "k.2nd", "l.2ND"}},
                 {2, jpg, {}},
                 {3, jpg, {"i.thm"}},
                 {4, {"c.DNG", "d.dng"}, {}},
                 {5, mp4, {}},
                 {6, mp4, {"j.THM", "k.2nd", "l.2ND"}},
                 {7, video, {}},
                 {8, recent, {}},
                 {11, recent, {}},
                 {12, {}, {}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        scan(c.type);
        EXPECT_THAT(ev->mediaFileLists[0], UnorderedElementsAreArray(c.entries));
        EXPECT_THAT(ev->extraFileLists[0], UnorderedElementsAreArray(c.extras));
        EXPECT_EQ(ev->mediaDirNames[0], "100MEDIA");  // names with extensions: a slot
    }
}

TEST_F(ScanTest, OnlyRealDirectoriesNamedMediaTakeSlots) {
    tree.add_files("100MEDIA", {"README", "LICENSE"});  // no extension anywhere: no slot
    tree.add_files("101MEDIA", {"v.MP4"});              // nothing selected, still a slot
    tree.add_files("xMEDIAy", {"p.JPG"});
    tree.add_files("102media", {"q.JPG"});  // the marker is case-sensitive
    tree.add_files("REAL", {"s.JPG"});
    ASSERT_EQ(symlink("REAL", (tree.location() + "/LINKMEDIA").c_str()), 0);
    tree.add_file("", "FILEMEDIA.JPG");
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    EXPECT_THAT(Names(ev->mediaDirNames.begin(), ev->mediaDirNames.begin() + 3),
                UnorderedElementsAreArray(Names{"101MEDIA", "xMEDIAy", ""}));
    EXPECT_THAT(names(media.get()), ElementsAre("xMEDIAy-p.JPG"));
    use_location(tree.path("", "FILEMEDIA.JPG"), 0, 0);  // a root that is no directory
    EXPECT_EQ(scan(CATALOGUE_JPG), -1);
}

// Slot order, then directory order; slots without entries hide nothing; the 101st is dropped.
TEST_F(ScanTest, EntriesFollowSlotThenDirectoryOrderForAHundredSlots) {
    for (int i = 0; i < 101; ++i) {
        const std::string dir = std::to_string(100 + i) + "MEDIA";
        tree.add_files(dir, i % 10 ? Names{"P.JPG", "Q.JPG", "R.JPG"} : Names{"V.MP4"});
    }
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names dirs = testsupport::dir_order(tree.location()), expected;
    dirs.pop_back();
    for (const std::string& dir : dirs) {
        for (const std::string& f : testsupport::dir_order(tree.location() + "/" + dir)) {
            if (f != "V.MP4") {
                expected.push_back(dir + "-" + f);
            }
        }
    }
    EXPECT_EQ(names(media.get()), expected);
}

// ctime cannot be set, so the boundary is checked at the file's real age, on the server's
// clock (time() may lag a second); a pass in which the second ticked is repeated.
TEST_F(ScanTest, RecentMeansAtMostTheLimitSinceTheStatusChange) {
    std::string path = tree.add_file("100MEDIA", "a.JPG");
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", path.c_str());
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    auto now = [] {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        return ts.tv_sec;
    };
    bool checked = false;
    for (int attempt = 0; attempt < 50 && !checked; ++attempt) {
        time_t before = now();
        int32_t age = static_cast<int32_t>(before - st.st_ctime);
        bool atAge = ev->is_recent(age), belowAge = ev->is_recent(age - 1);
        if (now() == before) {
            EXPECT_TRUE(atAge && !belowAge);
            checked = true;
        }
    }
    EXPECT_TRUE(checked);
    for (auto limit : {std::make_pair(8, 300), {9, 600}, {10, 1800}, {11, 3600}}) {
        EXPECT_EQ(recent_limit_seconds(limit.first), limit.second);
    }
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", tree.path("100MEDIA", "gone").c_str());
    EXPECT_FALSE(ev->is_recent(3600));  // a file that cannot be examined is never recent
}

std::string child(const cJSON* e, const char* key) {
    const cJSON* c = cJSON_GetObjectItemCaseSensitive(e, key);
    return c ? str(c, "fileName").substr(9) : "";  // without "100MEDIA-"
}

TEST_F(ScanTest, CompanionsNestUnderExactNames) {
    struct Case {
        uint16_t type;
        Names files;
        std::string subject, thumbnail, second;
    } cases[] = {
        {CATALOGUE_ALL, {"I.JPG", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.THM"}, "I.JPG", "I.THM", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.THM", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.Thm", "I.2nd"}, "I.JPG", "", ""},
        {CATALOGUE_ALL, {"R.DNG", "R.thm"}, "R.DNG", "", ""},
        {CATALOGUE_ALL, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "V.THM", "V.2nd"},
        {CATALOGUE_ALL, {"V.MP4", "V.2ND"}, "V.MP4", "", ""},
        {CATALOGUE_ALL, {"S.JPG", "S.mov", "S.thm", "S.2nd"}, "S.mov", "S.thm", "S.2nd"},
        {CATALOGUE_MP4_EXTRA, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "V.THM", "V.2nd"},
        {CATALOGUE_MP4_EXTRA, {"V.MP4", "V.thm"}, "V.MP4", "", ""},
        {CATALOGUE_JPG, {"I.JPG", "I.thm"}, "I.JPG", "", ""},
        {CATALOGUE_JPG_THM, {"I.JPG", "I.THM"}, "I.JPG", "", ""},
        {CATALOGUE_VIDEO, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.files[1] + " type " + std::to_string(c.type));
        tree.add_files("100MEDIA", c.files);
        scan(c.type);
        const cJSON* e = entry(media.get(), "100MEDIA-" + c.subject);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(child(e, "thumbnail"), c.thumbnail);
        EXPECT_EQ(child(e, "second"), c.second);
        for (const std::string& n : names(media.get())) {
            EXPECT_EQ(n.find(".thm"), std::string::npos) << "a companion became an entry";
        }
        testsupport::remove_tree(tree.location() + "/100MEDIA");
    }
}

// The whole text against cJSON's formatted print of the expected tree: key sets and order,
// "fileType" as written, the quoted "image", storage-id names, each file's own size and its
// status-change date (not the modification time).
TEST_F(ScanTest, PrintedCatalogueIsTheFormattedPrintOfTheExpectedTree) {
    use_location(tree.location(), 1, 3);
    struct timeval old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(tree.add_file("100MEDIA", "V.Mp4", 2048).c_str(), old), 0);
    tree.add_file("100MEDIA", "V.THM", 160);
    tree.add_file("100MEDIA", "V.2nd", 7);
    tree.add_file("100MEDIA", "p.jpg", 33);
    auto object = [&](const std::string& file, const char* type, const char* mediaKeys) {
        cJSON* o = cJSON_CreateObject();
        struct stat st;
        EXPECT_EQ(lstat(tree.path("100MEDIA", file).c_str(), &st), 0);
        char date[32];
        struct tm t;
        strftime(date, sizeof date, "%Y:%m:%d %H:%M:%S", localtime_r(&st.st_ctime, &t));
        cJSON_AddStringToObject(o, "fileType", type);
        cJSON_AddStringToObject(o, "fileName", ("3-100MEDIA-" + file).c_str());
        cJSON_AddStringToObject(o, "fileSize", std::to_string(st.st_size).c_str());
        cJSON_AddStringToObject(o, "createDate", date);
        std::istringstream keys(mediaKeys);
        for (std::string k; keys >> k;) {
            cJSON_AddStringToObject(o, k.c_str(), "");
        }
        return o;
    };
    const char* photoKeys = "imgmaker imgmodle imgWidth imgHeight imgResUnit imgColorSpace";
    Json expected(cJSON_CreateObject());
    cJSON_AddStringToObject(expected.get(), "image", "\"KORVEL\"");
    cJSON_AddStringToObject(expected.get(), "rootdir", tree.location().c_str());
    cJSON* list = cJSON_AddArrayToObject(expected.get(), "media");
    for (const std::string& f : testsupport::dir_order(tree.location() + "/100MEDIA")) {
        if (f == "p.jpg") {
            cJSON_AddItemToArray(list, object(f, "jpg", photoKeys));
        } else if (f == "V.Mp4") {
            cJSON* v =
                object(f, "Mp4", "avgBitRate frameRate duration imgWidth imgHeight codeFormat");
            cJSON_AddItemToObject(v, "thumbnail", object("V.THM", "thm", photoKeys));
            cJSON_AddItemToObject(v, "second", object("V.2nd", "2nd", photoKeys));
            cJSON_AddItemToArray(list, v);
        }
    }
    char* text = cJSON_Print(expected.get());
    const std::string want(text);
    cJSON_free(text);
    uint32_t len = 0;
    ev->catalogueType = CATALOGUE_ALL;
    ev->json_file_list_create(&len);
    EXPECT_EQ(ev->catalogueText, want);
    EXPECT_EQ(len, want.size());
    EXPECT_NE(want.find("\"image\":\t\"\\\"KORVEL\\\"\""), std::string::npos);
}

// Facts of one file as the metadata request reads them; stale fields must never survive,
// media facts need an extension after the first dot, and track facts are read for MP4, MOV
// and second streams in any case (an overlong extension must not overflow).
TEST_F(ScanTest, MediaRecordReadsOnlyTheFactsItsExtensionAsksFor) {
    const std::string clip = testsupport::mp4_file(testsupport::moov(testsupport::trak({})));
    struct Case {
        const char* file;
        bool photo, withMedia;
        int rc;
        const char* width;
    } cases[] = {{"README", true, true, -1, ""},    {"README", false, true, -1, ""},
                 {"TRAILING.", true, true, -1, ""}, {"TRAILING.", false, true, -1, ""},
                 {"README", true, false, 0, ""},    {"RAW.DNG", true, true, 0, ""},
                 {"PIC.thm", true, true, 0, ""},    {"X.JPGJPGJPGJPGJPGJ", true, true, 0, ""},
                 {"c.mp4", false, true, 0, "640"},  {"c.Mov", false, true, 0, "640"},
                 {"c.2nd", false, true, 0, "640"},  {"c.2ND", false, true, 0, "640"},
                 {"c.txt", false, true, 0, ""},     {"c.MP4", false, false, 0, ""},
                 {"GONE.MP4", false, true, 0, ""}};
    CJSONFile record;
    testsupport::make_dirs(tree.location() + "/100MEDIA");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + (c.photo ? " photo" : " video"));
        const std::string path = tree.path("100MEDIA", c.file);
        if (strcmp(c.file, "GONE.MP4") != 0) {
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
