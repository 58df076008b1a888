// The scan: which directories take a slot, and which file names each catalogue type puts
// into the entry and candidate lists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::names;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;
using Names = std::vector<std::string>;

const Names kMixed = {"a.JPG", "b.jpg",  "c.DNG",   "d.dng", "e.MP4",       "f.mp4",
                      "g.MOV", "h.mov",  "i.thm",   "j.THM", "k.2nd",       "l.2ND",
                      "m.txt", "README", ".hidden", "n.",    "IMG.0001.JPG"};

using ScanTest = CatalogueTest;

TEST_F(ScanTest, EachTypeSelectsItsEntriesAndCandidates) {
    const Names recent = {"a.JPG", "b.jpg", "e.MP4", "f.mp4", "g.MOV", "h.mov"};
    struct Case {
        uint16_t type;
        Names entries;
        Names extras;
    } cases[] = {
        {0, {}, {}},
        {1,
         {"a.JPG", "b.jpg", "c.DNG", "d.dng", "e.MP4", "f.mp4", "g.MOV", "h.mov"},
         {"i.thm", "j.THM", "k.2nd", "l.2ND"}},
        {2, {"a.JPG", "b.jpg"}, {}},
        {3, {"a.JPG", "b.jpg"}, {"i.thm"}},
        {4, {"c.DNG", "d.dng"}, {}},
        {5, {"e.MP4", "f.mp4"}, {}},
        {6, {"e.MP4", "f.mp4"}, {"j.THM", "k.2nd", "l.2ND"}},
        {7, {"e.MP4", "f.mp4", "g.MOV", "h.mov"}, {}},
        {8, recent, {}},
        {9, recent, {}},
        {10, recent, {}},
        {11, recent, {}},
        {12, {}, {}},
        {0xFFFF, {}, {}},
    };
    tree.add_files("100MEDIA", kMixed);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        scan(c.type);
        EXPECT_THAT(ev->mediaFileLists[0], UnorderedElementsAreArray(c.entries));
        EXPECT_THAT(ev->extraFileLists[0], UnorderedElementsAreArray(c.extras));
        EXPECT_EQ(ev->mediaDirNames[0], "100MEDIA");  // the names have extensions: a slot
    }
}

TEST_F(ScanTest, ListsKeepDirectoryOrder) {
    Names files;
    for (int i = 0; i < 40; ++i) {
        files.push_back("F" + std::to_string(i * 7919 % 1000) + (i % 2 ? ".JPG" : ".thm"));
    }
    tree.add_files("100MEDIA", files);
    scan(CATALOGUE_ALL);
    Names photos, thumbs;
    for (const std::string& n : testsupport::dir_order(tree.location() + "/100MEDIA")) {
        (n.find(".JPG") != std::string::npos ? photos : thumbs).push_back(n);
    }
    EXPECT_EQ(ev->mediaFileLists[0], photos);
    EXPECT_EQ(ev->extraFileLists[0], thumbs);
}

TEST_F(ScanTest, OnlyRealDirectoriesNamedMediaTakeSlots) {
    tree.add_files("100MEDIA", {"README", "LICENSE"});  // no extension anywhere: no slot
    tree.add_files("101MEDIA", {"v.MP4"});              // nothing selected by type 2, yet a slot
    tree.add_files("xMEDIAy", {"p.JPG"});
    tree.add_files("102media", {"q.JPG"});  // the marker is case-sensitive
    tree.add_files("DCIMOTHER", {"r.JPG"});
    tree.add_files("REAL", {"s.JPG"});
    ASSERT_EQ(symlink(tree.add_dir("REAL").c_str(), (tree.location() + "/LINKMEDIA").c_str()), 0);
    tree.add_file("", "FILEMEDIA.JPG");  // a plain file in the root
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names slots(ev->mediaDirNames.begin(), ev->mediaDirNames.begin() + 2);
    EXPECT_THAT(slots, UnorderedElementsAreArray(Names{"101MEDIA", "xMEDIAy"}));
    EXPECT_EQ(ev->mediaDirNames[2], "");
    EXPECT_THAT(names(media.get()), ElementsAre("xMEDIAy-p.JPG"));
}

TEST_F(ScanTest, TheHundredAndFirstDirectoryIsIgnored) {
    for (int i = 0; i < 101; ++i) {
        tree.add_files(std::to_string(100 + i) + "MEDIA", {"P" + std::to_string(i) + ".JPG"});
    }
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names order = testsupport::dir_order(tree.location());
    ASSERT_EQ(order.size(), 101u);
    Names listed = names(media.get());
    ASSERT_EQ(listed.size(), 100u);
    for (size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(ev->mediaDirNames[i], order[i]);
        EXPECT_EQ(listed[i].substr(0, listed[i].find('-')), order[i]);
    }
}

TEST_F(ScanTest, RootThatIsMissingOrNotADirectoryYieldsNothing) {
    EXPECT_EQ(scan(CATALOGUE_ALL), -1);  // DCIM not created yet
    tree.add_file("", "x.JPG");          // creates DCIM
    use_location(tree.path("", "x.JPG"), 0, 0);
    EXPECT_EQ(scan(CATALOGUE_ALL), -1);
    EXPECT_EQ(cJSON_GetArraySize(media.get()), 0);
}

TEST_F(ScanTest, EveryScanStartsFromEmptyLists) {
    tree.add_files("100MEDIA", {"a.JPG", "a.thm"});
    scan(CATALOGUE_ALL);
    scan(CATALOGUE_DNG);
    EXPECT_THAT(ev->mediaFileLists[0], IsEmpty());
    EXPECT_THAT(ev->extraFileLists[0], IsEmpty());
}

TEST_F(ScanTest, QuitStopsTheScanWithNoEntries) {
    tree.add_files("100MEDIA", {"a.JPG"});
    testsupport::write_file(tree.card() + "/krv_log.conf", "1,0\n");
    ev->quitRequested = 1;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(scan(CATALOGUE_ALL), -1);
    fflush(stdout);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("quit request from client."), std::string::npos) << out;
    EXPECT_EQ(cJSON_GetArraySize(media.get()), 0);
}

// Status-change times cannot be set, so the boundary is checked against the age each file
// really has: recent at exactly its age, not at one second less. A pass in which the clock
// ticked is retried.
TEST_F(ScanTest, RecentMeansAtMostTheLimitSinceTheStatusChange) {
    std::string path = tree.add_file("100MEDIA", "a.JPG");
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", path.c_str());
    time_t ctime = tree.ctime_of("100MEDIA", "a.JPG");
    int checked = 0;
    for (int attempt = 0; attempt < 50 && checked == 0; ++attempt) {
        time_t before = time(nullptr);
        int32_t age = static_cast<int32_t>(before - ctime);
        bool atAge = ev->is_recent(age);
        bool belowAge = ev->is_recent(age - 1);
        if (time(nullptr) != before) {
            continue;
        }
        EXPECT_TRUE(atAge);
        EXPECT_FALSE(belowAge);
        ++checked;
    }
    EXPECT_EQ(checked, 1);
    EXPECT_TRUE(ev->is_recent(3600));
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", tree.path("100MEDIA", "gone").c_str());
    EXPECT_FALSE(ev->is_recent(3600));  // a file that cannot be examined is never recent
}

TEST_F(ScanTest, RecentTypesHaveTheirLimits) {
    const std::pair<uint16_t, int32_t> limits[] = {{7, -1},    {8, 300},   {9, 600},
                                                   {10, 1800}, {11, 3600}, {12, -1}};
    for (const auto& l : limits) {
        EXPECT_EQ(recent_limit_seconds(l.first), l.second) << l.first;
    }
}

}  // namespace
}  // namespace korvel
