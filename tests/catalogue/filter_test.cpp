// The walk: companions nested under exact names, display names in both location modes,
// entry order, and the printed catalogue as a whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <ctime>
#include <string>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::entry;
using cataloguetest::Json;
using cataloguetest::names;
using cataloguetest::Names;
using cataloguetest::str;
using WalkTest = CatalogueTest;

std::string child_name(const cJSON* e, const char* key) {
    const cJSON* c = cJSON_GetObjectItemCaseSensitive(e, key);
    return c ? str(c, "fileName").substr(9) : "";  // without "100MEDIA-"
}

TEST_F(WalkTest, CompanionsNestUnderExactNames) {
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
        {CATALOGUE_JPG_THM, {"I.JPG", "I.thm"}, "I.JPG", "I.thm", ""},
        {CATALOGUE_JPG_THM, {"I.JPG", "I.THM"}, "I.JPG", "", ""},
        {CATALOGUE_VIDEO, {"V.MP4", "V.THM", "V.2nd"}, "V.MP4", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.files[1] + " type " + std::to_string(c.type));
        tree.add_files("100MEDIA", c.files);
        scan(c.type);
        const cJSON* e = entry(media.get(), "100MEDIA-" + c.subject);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(child_name(e, "thumbnail"), c.thumbnail);
        EXPECT_EQ(child_name(e, "second"), c.second);
        for (const std::string& n : names(media.get())) {
            EXPECT_EQ(n.find(".thm"), std::string::npos) << "a companion became an entry";
        }
        testsupport::remove_tree(tree.location() + "/100MEDIA");
    }
}

// Sizes prove that every object's facts come from its own file under the location.
TEST_F(WalkTest, DisplayNamesInBothLocationModes) {
    tree.add_file("100MEDIA", "IMG_0001.JPG", 321);
    tree.add_file("100MEDIA", "IMG_0001.thm", 45);
    for (auto mode : {std::make_pair(0, ""), std::make_pair(1, "0-"), std::make_pair(1, "3-")}) {
        std::string prefix = mode.second;
        use_location(tree.location(), static_cast<uint8_t>(mode.first), prefix == "3-" ? 3 : 0);
        scan(CATALOGUE_ALL);
        const cJSON* e = entry(media.get(), prefix + "100MEDIA-IMG_0001.JPG");
        ASSERT_NE(e, nullptr) << prefix;
        const cJSON* thumb = cJSON_GetObjectItemCaseSensitive(e, "thumbnail");
        EXPECT_EQ(str(thumb, "fileName"), prefix + "100MEDIA-IMG_0001.thm");
        EXPECT_EQ(str(e, "fileSize"), "321");
        EXPECT_EQ(str(thumb, "fileSize"), "45");
    }
}

TEST_F(WalkTest, EntriesFollowSlotOrderThenDirectoryOrder) {
    for (int d = 0; d < 4; ++d) {
        for (int f = 0; f < 15; ++f) {
            tree.add_file(std::to_string(100 + d) + "MEDIA",
                          "F" + std::to_string(f * 37 % 100) + (f % 3 ? ".JPG" : ".MP4"));
        }
    }
    tree.add_files("104MEDIA", {"only.MP4"});  // a first slot without entries hides nothing
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names expected;
    for (const std::string& dir : testsupport::dir_order(tree.location())) {
        for (const std::string& f : testsupport::dir_order(tree.location() + "/" + dir)) {
            if (f.find(".JPG") != std::string::npos) {
                expected.push_back(dir + "-" + f);
            }
        }
    }
    EXPECT_EQ(expected.size(), 40u);
    EXPECT_EQ(names(media.get()), expected);
}

// The whole text against cJSON's own formatted print of the tree we expect, with facts
// taken from the files: key sets and order, "fileType" as written, quoting of "image",
// the status-change date.
TEST_F(WalkTest, PrintedCatalogueIsTheFormattedPrintOfTheExpectedTree) {
    const Names photoKeys = {"fileType", "fileName", "fileSize",  "createDate", "imgmaker",
                             "imgmodle", "imgWidth", "imgHeight", "imgResUnit", "imgColorSpace"};
    const Names videoKeys = {"fileType",  "fileName", "fileSize", "createDate", "avgBitRate",
                             "frameRate", "duration", "imgWidth", "imgHeight",  "codeFormat"};
    auto object = [&](const std::string& file, const char* type, bool video) {
        cJSON* o = cJSON_CreateObject();
        struct stat st;
        EXPECT_EQ(lstat(tree.path("100MEDIA", file).c_str(), &st), 0);
        struct tm t;
        localtime_r(&st.st_ctime, &t);
        char date[32];
        strftime(date, sizeof date, "%Y:%m:%d %H:%M:%S", &t);
        for (const std::string& k : video ? videoKeys : photoKeys) {
            std::string v = k == "fileType"     ? type
                            : k == "fileName"   ? "100MEDIA-" + file
                            : k == "fileSize"   ? std::to_string(st.st_size)
                            : k == "createDate" ? date
                                                : "";
            cJSON_AddStringToObject(o, k.c_str(), v.c_str());
        }
        return o;
    };
    // An old modification time must not show: the date is the status change.
    struct timeval old[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(tree.add_file("100MEDIA", "p.jpg", 2048).c_str(), old), 0);
    tree.add_file("100MEDIA", "p.thm", 160);
    tree.add_files("100MEDIA", {"V.Mp4", "V.THM", "V.2nd"});
    Json expected(cJSON_CreateObject());
    cJSON_AddStringToObject(expected.get(), "image", "\"KORVEL\"");
    cJSON_AddStringToObject(expected.get(), "rootdir", tree.location().c_str());
    cJSON* list = cJSON_AddArrayToObject(expected.get(), "media");
    for (const std::string& f : testsupport::dir_order(tree.location() + "/100MEDIA")) {
        if (f == "p.jpg") {
            cJSON* photo = object(f, "jpg", false);
            cJSON_AddItemToObject(photo, "thumbnail", object("p.thm", "thm", false));
            cJSON_AddItemToArray(list, photo);
        } else if (f == "V.Mp4") {
            cJSON* video = object(f, "Mp4", true);
            cJSON_AddItemToObject(video, "thumbnail", object("V.THM", "thm", false));
            cJSON_AddItemToObject(video, "second", object("V.2nd", "2nd", false));
            cJSON_AddItemToArray(list, video);
        }
    }
    char* text = cJSON_Print(expected.get());
    ASSERT_NE(text, nullptr);
    std::string want(text);
    cJSON_free(text);

    uint32_t len = 0;
    ev->catalogueType = CATALOGUE_ALL;
    ev->json_file_list_create(&len);
    EXPECT_EQ(ev->catalogueText, want);
    EXPECT_EQ(len, want.size());
    EXPECT_NE(want.find("\"image\":\t\"\\\"KORVEL\\\"\""), std::string::npos);
}

}  // namespace
}  // namespace korvel
