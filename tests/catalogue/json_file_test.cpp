// The media record: key sets, file facts by full path, and that no fact of one file ever
// shows up in the object of the next.
#include "catalogue/json_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "catalogue/catalogue_fixture.h"
#include "support/media_tree.h"

namespace korvel {
namespace {

using cataloguetest::Json;
using cataloguetest::keys;
using cataloguetest::str;

class MediaRecordTest : public ::testing::Test {
protected:
    // Names the file as the catalogue would, gathers its facts, returns the object.
    Json describe(const std::string& file, bool photo, bool withMedia = false, int* rc = nullptr) {
        std::string disp = "100MEDIA-" + file;
        record.set_names(disp.c_str(), tree.path("100MEDIA", file).c_str());
        int r = record.gather_facts(photo, withMedia);
        if (rc) {
            *rc = r;
        }
        Json object(cJSON_CreateObject());
        if (photo) {
            record.get_json_photo_param(object.get(), "JPG");
        } else {
            record.get_json_video_param(object.get(), "MP4");
        }
        return object;
    }
    void fill_every_fact(const char* junk) {
        char* const fields[] = {record.fileSize,   record.createDate, record.maker,
                                record.model,      record.resUnit,    record.colourSpace,
                                record.duration,   record.avgBitRate, record.frameRate,
                                record.codeFormat, record.width,      record.height};
        for (char* f : fields) {
            strcpy(f, junk);
        }
    }

    testsupport::MediaTree tree;
    CJSONFile record;
};

TEST_F(MediaRecordTest, KeySetsInOrderWithStringValues) {
    tree.add_file("100MEDIA", "IMG_0001.JPG", 1234);
    tree.add_file("100MEDIA", "VID_0001.MP4", 0);
    Json photo = describe("IMG_0001.JPG", true);
    Json video = describe("VID_0001.MP4", false);
    EXPECT_EQ(keys(photo.get()),
              (std::vector<std::string>{"fileType", "fileName", "fileSize", "createDate",
                                        "imgmaker", "imgmodle", "imgWidth", "imgHeight",
                                        "imgResUnit", "imgColorSpace"}));
    EXPECT_EQ(
        keys(video.get()),
        (std::vector<std::string>{"fileType", "fileName", "fileSize", "createDate", "avgBitRate",
                                  "frameRate", "duration", "imgWidth", "imgHeight", "codeFormat"}));
    for (const cJSON* object : {photo.get(), video.get()}) {
        for (const cJSON* c = object->child; c; c = c->next) {
            EXPECT_TRUE(cJSON_IsString(c)) << c->string;
        }
    }
    EXPECT_EQ(str(photo.get(), "fileType"), "JPG");
    EXPECT_EQ(str(photo.get(), "fileName"), "100MEDIA-IMG_0001.JPG");
    EXPECT_EQ(str(photo.get(), "fileSize"), "1234");
    EXPECT_EQ(str(video.get(), "fileSize"), "0");  // a zero-byte file: the text "0"
}

// The date is the status-change time: moving the modification time into the past must not
// change it. Both halves come from the file's own lstat.
TEST_F(MediaRecordTest, CreateDateIsStatusChangeTimeInLocalTime) {
    std::string path = tree.add_file("100MEDIA", "IMG_0002.JPG", 10);
    struct timeval old[2] = {{1000000000, 0}, {1000000000, 0}};  // 2001
    ASSERT_EQ(utimes(path.c_str(), old), 0);
    Json photo = describe("IMG_0002.JPG", true);
    std::string date = str(photo.get(), "createDate");
    EXPECT_TRUE(std::regex_match(date, std::regex(R"(\d{4}:\d{2}:\d{2} \d{2}:\d{2}:\d{2})")))
        << date;
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    struct tm t;
    ASSERT_NE(localtime_r(&st.st_ctime, &t), nullptr);
    char expected[80];
    snprintf(expected, sizeof expected, "%04d:%02d:%02d %02d:%02d:%02d", t.tm_year + 1900,
             t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    EXPECT_EQ(date, expected);
}

TEST_F(MediaRecordTest, LinkIsDescribedNotFollowed) {
    tree.add_file("100MEDIA", "BIG.JPG", 5000);
    ASSERT_EQ(symlink("BIG.JPG", tree.path("100MEDIA", "LINK.JPG").c_str()), 0);
    Json photo = describe("LINK.JPG", true);
    EXPECT_EQ(str(photo.get(), "fileSize"), "7");  // strlen("BIG.JPG"): the link itself
}

TEST_F(MediaRecordTest, MissingFileKeepsEveryKeyButLeavesFactsEmpty) {
    tree.add_file("100MEDIA", "IMG_0003.JPG", 99);
    describe("IMG_0003.JPG", true);
    Json gone = describe("GONE.JPG", true);
    EXPECT_EQ(keys(gone.get()).size(), 10u);
    EXPECT_EQ(str(gone.get(), "fileSize"), "");
    EXPECT_EQ(str(gone.get(), "createDate"), "");
}

TEST_F(MediaRecordTest, NothingCarriesOverFromThePreviousFile) {
    tree.add_file("100MEDIA", "A.DNG", 3);
    tree.add_file("100MEDIA", "B.MOV", 4);
    for (bool withMedia : {false, true}) {
        fill_every_fact("stale");
        Json photo = describe("A.DNG", true, withMedia);
        for (const char* k :
             {"imgmaker", "imgmodle", "imgWidth", "imgHeight", "imgResUnit", "imgColorSpace"}) {
            EXPECT_EQ(str(photo.get(), k), "") << k;
        }
        fill_every_fact("stale");
        Json video = describe("B.MOV", false, withMedia);
        for (const char* k : {"avgBitRate", "frameRate", "duration", "codeFormat"}) {
            EXPECT_EQ(str(video.get(), k), "") << k;
        }
        EXPECT_EQ(str(video.get(), "fileSize"), "4");
    }
}

// Media facts need an extension after the first dot of the display name; a kind that is
// not read (or an overlong extension) is not a failure.
TEST_F(MediaRecordTest, MediaStepResultsByExtension) {
    struct Case {
        const char* file;
        bool photo;
        int rc;
    } cases[] = {
        {"README", true, -1},    {"README", false, -1},
        {"TRAILING.", true, -1}, {"TRAILING.", false, -1},
        {"RAW.DNG", true, 0},    {"PIC.thm", true, 0},
        {"CLIP.2ND", false, 0},  {"X.JPGJPGJPGJPGJPGJ", true, 0},
        {"CLIP.txt", false, 0},
    };
    for (const Case& c : cases) {
        tree.add_file("100MEDIA", c.file, 1);
        int rc = 99;
        describe(c.file, c.photo, true, &rc);
        EXPECT_EQ(rc, c.rc) << c.file << (c.photo ? " photo" : " video");
    }
    int rc = 99;
    describe("README", true, false, &rc);  // file facts only: no extension needed
    EXPECT_EQ(rc, 0);
}

TEST_F(MediaRecordTest, NamesAreCutToTheirBuffers) {
    std::string longName(3000, 'n');
    record.set_names(longName.c_str(), longName.c_str());
    EXPECT_EQ(strlen(record.dispName), sizeof record.dispName - 1);
    EXPECT_EQ(strlen(record.fullPath), sizeof record.fullPath - 1);
}

}  // namespace
}  // namespace korvel
