// The walk: entries with their thumbnail and second stream nested, display names in both
// location modes, entry order, and the printed catalogue as a whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <string>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::entry;
using cataloguetest::Json;
using cataloguetest::keys;
using cataloguetest::names;
using cataloguetest::str;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Names = std::vector<std::string>;

const Names kPhotoKeys = {"fileType", "fileName", "fileSize",  "createDate", "imgmaker",
                          "imgmodle", "imgWidth", "imgHeight", "imgResUnit", "imgColorSpace"};
const Names kVideoKeys = {"fileType",  "fileName", "fileSize", "createDate", "avgBitRate",
                          "frameRate", "duration", "imgWidth", "imgHeight",  "codeFormat"};

Names with(Names base, std::initializer_list<const char*> more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

using WalkTest = CatalogueTest;

// For one media file: which companion files become its "thumbnail" and "second".
TEST_F(WalkTest, CompanionsNestUnderExactNames) {
    struct Case {
        uint16_t type;
        Names files;
        std::string subject;
        std::string thumbnail;  // "" = none
        std::string second;
    } cases[] = {
        {CATALOGUE_ALL, {"I.JPG", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.THM"}, "I.JPG", "I.THM", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.THM", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.Thm"}, "I.JPG", "", ""},
        {CATALOGUE_ALL, {"I.JPG", "I.2nd"}, "I.JPG", "", ""},
        {CATALOGUE_ALL, {"R.DNG", "R.thm"}, "R.DNG", "", ""},
        {CATALOGUE_ALL, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "V.THM", "V.2nd"},
        {CATALOGUE_MP4_EXTRA, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "V.THM", "V.2nd"},
        {CATALOGUE_MP4_EXTRA, {"V.MP4", "V.thm", "V.2ND"}, "V.MP4", "", ""},
        {CATALOGUE_ALL, {"V.MP4", "V.2ND"}, "V.MP4", "", ""},
        {CATALOGUE_ALL, {"M.mov", "M.thm", "M.2nd"}, "M.mov", "M.thm", "M.2nd"},
        {CATALOGUE_JPG, {"I.JPG", "I.thm"}, "I.JPG", "", ""},
        {CATALOGUE_JPG_THM, {"I.JPG", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_JPG_THM, {"I.JPG", "I.THM"}, "I.JPG", "", ""},
        {CATALOGUE_VIDEO, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "", ""},
    };
    int n = 0;
    for (const Case& c : cases) {
        std::string dir = std::to_string(100 + n++) + "MEDIA";
        SCOPED_TRACE(dir + " type " + std::to_string(c.type));
        use_location(tree.location(), 0, 0);
        tree.add_files(dir, c.files);
        scan(c.type);
        const cJSON* e = entry(media.get(), dir + "-" + c.subject);
        ASSERT_NE(e, nullptr);
        const cJSON* thumb = cJSON_GetObjectItemCaseSensitive(e, "thumbnail");
        const cJSON* second = cJSON_GetObjectItemCaseSensitive(e, "second");
        EXPECT_EQ(thumb ? str(thumb, "fileName") : "",
                  c.thumbnail.empty() ? "" : dir + "-" + c.thumbnail);
        EXPECT_EQ(second ? str(second, "fileName") : "",
                  c.second.empty() ? "" : dir + "-" + c.second);
        EXPECT_EQ(cJSON_GetArraySize(media.get()), 1) << "companions are never entries";
        testsupport::remove_tree(tree.location() + "/" + dir);
    }
}

TEST_F(WalkTest, EntryKeySetsAndFileTypeAsWritten) {
    tree.add_files("100MEDIA", {"V.Mp4", "V.THM", "V.2nd", "p.jpg", "p.thm", "R.dng"});
    ASSERT_EQ(scan(CATALOGUE_ALL), 0);
    const cJSON* video = entry(media.get(), "100MEDIA-V.Mp4");
    const cJSON* photo = entry(media.get(), "100MEDIA-p.jpg");
    const cJSON* raw = entry(media.get(), "100MEDIA-R.dng");
    ASSERT_TRUE(video && photo && raw);
    EXPECT_EQ(keys(video), with(kVideoKeys, {"thumbnail", "second"}));
    EXPECT_EQ(keys(photo), with(kPhotoKeys, {"thumbnail"}));
    EXPECT_EQ(keys(raw), kPhotoKeys);
    EXPECT_EQ(str(video, "fileType"), "Mp4");
    EXPECT_EQ(str(photo, "fileType"), "jpg");
    EXPECT_EQ(str(raw, "fileType"), "dng");
    // Companions carry the photo key set even beside a video.
    const cJSON* thumb = cJSON_GetObjectItemCaseSensitive(video, "thumbnail");
    const cJSON* second = cJSON_GetObjectItemCaseSensitive(video, "second");
    EXPECT_EQ(keys(thumb), kPhotoKeys);
    EXPECT_EQ(keys(second), kPhotoKeys);
    EXPECT_EQ(str(thumb, "fileType"), "thm");
    EXPECT_EQ(str(second, "fileType"), "2nd");
    // Catalogue entries carry file facts only.
    EXPECT_EQ(str(video, "codeFormat"), "");
    EXPECT_EQ(str(photo, "imgmaker"), "");
}

TEST_F(WalkTest, PhotoAndVideoWithOneStemShareTheThumbnail) {
    tree.add_files("100MEDIA", {"S.JPG", "S.MOV", "S.thm"});
    scan(CATALOGUE_ALL);
    for (const char* name : {"100MEDIA-S.JPG", "100MEDIA-S.MOV"}) {
        const cJSON* e = entry(media.get(), name);
        ASSERT_NE(e, nullptr) << name;
        EXPECT_EQ(str(cJSON_GetObjectItemCaseSensitive(e, "thumbnail"), "fileName"),
                  "100MEDIA-S.thm");
    }
}

// Sizes prove that each object's facts come from its own file under the location.
TEST_F(WalkTest, DisplayNamesInBothLocationModes) {
    tree.add_file("100MEDIA", "IMG_0001.JPG", 321);
    tree.add_file("100MEDIA", "IMG_0001.thm", 45);
    struct Case {
        uint8_t userDef;
        int32_t id;
        std::string prefix;
    } cases[] = {{0, 0, ""}, {1, 0, "0-"}, {1, 3, "3-"}};
    for (const Case& c : cases) {
        use_location(tree.location(), c.userDef, c.id);
        scan(CATALOGUE_ALL);
        const cJSON* e = entry(media.get(), c.prefix + "100MEDIA-IMG_0001.JPG");
        ASSERT_NE(e, nullptr) << c.prefix;
        const cJSON* thumb = cJSON_GetObjectItemCaseSensitive(e, "thumbnail");
        EXPECT_EQ(str(thumb, "fileName"), c.prefix + "100MEDIA-IMG_0001.thm");
        EXPECT_EQ(str(e, "fileSize"), "321");
        EXPECT_EQ(str(thumb, "fileSize"), "45");
    }
}

TEST_F(WalkTest, EntriesFollowSlotOrderThenDirectoryOrder) {
    for (int d = 0; d < 4; ++d) {
        std::string dir = std::to_string(100 + d) + "MEDIA";
        for (int f = 0; f < 15; ++f) {
            tree.add_file(dir, "F" + std::to_string(f * 37 % 100) + (f % 3 ? ".JPG" : ".MP4"));
        }
    }
    tree.add_files("104MEDIA", {"only.MP4"});  // nothing selected by type 2
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names expected;
    for (const std::string& dir : testsupport::dir_order(tree.location())) {
        for (const std::string& f : testsupport::dir_order(tree.location() + "/" + dir)) {
            if (f.find(".JPG") != std::string::npos) {
                expected.push_back(dir + "-" + f);
            }
        }
    }
    ASSERT_EQ(expected.size(), 40u);
    EXPECT_THAT(names(media.get()), ElementsAreArray(expected));
}

TEST_F(WalkTest, FileGoneSinceTheScanStillGetsItsObject) {
    ev->catalogueType = CATALOGUE_ALL;
    ev->mediaDirNames[0] = "100MEDIA";
    ev->mediaFileLists[0] = {"GONE.JPG", "README", "x.txt"};
    ev->extraFileLists[0] = {"GONE.thm"};
    media.reset(cJSON_CreateArray());
    ASSERT_EQ(ev->json_look_by_filetype(media.get(), 1), 0);
    ASSERT_EQ(cJSON_GetArraySize(media.get()), 1);
    const cJSON* e = cJSON_GetArrayItem(media.get(), 0);
    EXPECT_EQ(str(e, "fileName"), "100MEDIA-GONE.JPG");
    EXPECT_EQ(str(e, "fileSize"), "");
    EXPECT_EQ(str(e, "createDate"), "");
    EXPECT_EQ(keys(cJSON_GetObjectItemCaseSensitive(e, "thumbnail")), kPhotoKeys);
}

TEST_F(WalkTest, QuitStopsTheWalkBeforeTheNextFile) {
    ev->mediaDirNames[0] = "100MEDIA";
    ev->mediaFileLists[0] = {"A.JPG"};
    ev->quitRequested = 1;
    media.reset(cJSON_CreateArray());
    EXPECT_EQ(ev->json_look_by_filetype(media.get(), 1), -1);
    EXPECT_EQ(cJSON_GetArraySize(media.get()), 0);
}

// The whole printed text against cJSON's own formatted print of the tree we expect, with
// facts taken from the files themselves.
TEST_F(WalkTest, PrintedCatalogueIsTheFormattedPrintOfTheTree) {
    tree.add_file("100MEDIA", "IMG_0001.JPG", 2048);
    tree.add_file("100MEDIA", "IMG_0001.thm", 160);
    auto facts = [&](const std::string& file, const char* type, bool video) {
        cJSON* o = cJSON_CreateObject();
        struct stat st;
        EXPECT_EQ(lstat(tree.path("100MEDIA", file).c_str(), &st), 0);
        struct tm t;
        localtime_r(&st.st_ctime, &t);
        char date[32];
        strftime(date, sizeof date, "%Y:%m:%d %H:%M:%S", &t);
        for (const std::string& k : video ? kVideoKeys : kPhotoKeys) {
            std::string v = k == "fileType"     ? type
                            : k == "fileName"   ? "100MEDIA-" + file
                            : k == "fileSize"   ? std::to_string(st.st_size)
                            : k == "createDate" ? date
                                                : "";
            cJSON_AddStringToObject(o, k.c_str(), v.c_str());
        }
        return o;
    };
    Json expected(cJSON_CreateObject());
    cJSON_AddStringToObject(expected.get(), "image", "\"KORVEL\"");
    cJSON_AddStringToObject(expected.get(), "rootdir", tree.location().c_str());
    cJSON* list = cJSON_AddArrayToObject(expected.get(), "media");
    cJSON* photo = facts("IMG_0001.JPG", "JPG", false);
    cJSON_AddItemToObject(photo, "thumbnail", facts("IMG_0001.thm", "thm", false));
    cJSON_AddItemToArray(list, photo);
    char* text = cJSON_Print(expected.get());
    ASSERT_NE(text, nullptr);
    std::string want(text);
    cJSON_free(text);

    Json built = build(CATALOGUE_ALL);
    EXPECT_EQ(ev->catalogueText, want);
    EXPECT_NE(ev->catalogueText.find("\"image\":\t\"\\\"KORVEL\\\"\""), std::string::npos);
    EXPECT_EQ(ev->catalogueText.back(), '}');  // no terminating NUL in the text
}

}  // namespace
}  // namespace korvel
