// The media record: nothing carried over between files, and the media step's answer by
// extension.
#include "catalogue/json_file.h"

#include <gtest/gtest.h>

#include <cstring>

#include "catalogue/catalogue_fixture.h"
#include "support/mp4_builder.h"

namespace korvel {
namespace {

using cataloguetest::Json;
using cataloguetest::str;

class MediaRecordTest : public ::testing::Test {
protected:
    Json describe(const std::string& file, bool photo, bool withMedia, int* rc = nullptr) {
        record.set_names(("100MEDIA-" + file).c_str(), tree.path("100MEDIA", file).c_str());
        int r = record.gather_facts(photo, withMedia);
        if (rc != nullptr) {
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
    testsupport::MediaTree tree;
    CJSONFile record;
};

TEST_F(MediaRecordTest, NothingCarriesOverFromThePreviousFile) {
    tree.add_file("100MEDIA", "A.DNG", 3);
    for (bool withMedia : {false, true}) {
        for (char* f : {record.fileSize, record.createDate, record.maker, record.model,
                        record.width, record.height, record.resUnit, record.colourSpace,
                        record.duration, record.avgBitRate, record.frameRate, record.codeFormat}) {
            strcpy(f, "stale");
        }
        Json photo = describe("A.DNG", true, withMedia);
        for (const char* k :
             {"imgmaker", "imgmodle", "imgWidth", "imgHeight", "imgResUnit", "imgColorSpace"}) {
            EXPECT_EQ(str(photo.get(), k), "") << k;
        }
        EXPECT_EQ(str(photo.get(), "fileSize"), "3");
        Json gone = describe("GONE.MP4", false, withMedia);  // lstat fails: facts stay empty
        for (const char* k : {"fileSize", "createDate", "avgBitRate", "duration", "codeFormat"}) {
            EXPECT_EQ(str(gone.get(), k), "") << k;
        }
    }
}

// Media facts need an extension after the first dot of the display name; a kind that is
// not read, or an overlong extension, is no failure.
TEST_F(MediaRecordTest, MediaStepAnswersByExtension) {
    struct Case {
        const char* file;
        bool photo;
        int rc;
    } cases[] = {{"README", true, -1},     {"README", false, -1},          {"TRAILING.", true, -1},
                 {"TRAILING.", false, -1}, {"RAW.DNG", true, 0},           {"PIC.thm", true, 0},
                 {"CLIP.2ND", false, 0},   {"X.JPGJPGJPGJPGJPGJ", true, 0}};
    for (const Case& c : cases) {
        int rc = 99;
        describe(c.file, c.photo, true, &rc);
        EXPECT_EQ(rc, c.rc) << c.file << (c.photo ? " photo" : " video");
    }
    int rc = 99;
    describe("README", true, false, &rc);  // file facts alone need no extension
    EXPECT_EQ(rc, 0);
}

// Track facts are read for MP4, MOV and second streams in any case, and for nothing else.
TEST_F(MediaRecordTest, VideoFactsByExtensionInAnyCase) {
    tree.add_file("100MEDIA", "x", 0);
    const std::string clip = testsupport::mp4_file(testsupport::moov(testsupport::trak({})));
    for (const char* name : {"c.mp4", "c.Mov", "c.2nd", "c.2ND", "c.txt"}) {
        testsupport::write_file(tree.path("100MEDIA", name), clip);
        Json video = describe(name, false, true);
        EXPECT_EQ(str(video.get(), "imgWidth"), name[2] == 't' ? "" : "640") << name;
    }
}

}  // namespace
}  // namespace korvel
