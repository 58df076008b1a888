// The scan: which directories take a slot, and which names each catalogue type puts into
// the entry and candidate lists.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "catalogue/catalogue.h"
#include "catalogue/catalogue_fixture.h"

namespace korvel {
namespace {

using cataloguetest::CatalogueTest;
using cataloguetest::names;
using cataloguetest::Names;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAreArray;
using ScanTest = CatalogueTest;

TEST_F(ScanTest, EachTypeSelectsItsEntriesAndCandidates) {
    tree.add_files("100MEDIA",
                   {"a.JPG", "b.jpg", "c.DNG", "d.dng", "e.MP4", "f.mp4", "g.MOV", "h.mov", "i.thm",
                    "j.THM", "k.2nd", "l.2ND", "m.txt", "README", ".hidden", "n.", "IMG.0001.JPG"});
    const Names recent = {"a.JPG", "b.jpg", "e.MP4", "f.mp4", "g.MOV", "h.mov"};  // no DNG
    struct Case {
        uint16_t type;
        Names entries, extras;
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
    };
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
    use_location(tree.card() + "/NOPE", 0, 0);
    EXPECT_EQ(scan(CATALOGUE_JPG), -1);
}

TEST_F(ScanTest, TheHundredAndFirstDirectoryIsIgnored) {
    for (int i = 0; i < 101; ++i) {
        tree.add_files(std::to_string(100 + i) + "MEDIA", {"P.JPG"});
    }
    ASSERT_EQ(scan(CATALOGUE_JPG), 0);
    Names order = testsupport::dir_order(tree.location());
    order.pop_back();
    for (std::string& dir : order) {
        dir += "-P.JPG";
    }
    EXPECT_EQ(names(media.get()), order);
}

// Status-change times cannot be set, so the boundary is checked at the age the file really
// has: recent at exactly that age, not at one second less. A pass in which the clock
// ticked proves nothing and is repeated.
TEST_F(ScanTest, RecentMeansAtMostTheLimitSinceTheStatusChange) {
    std::string path = tree.add_file("100MEDIA", "a.JPG");
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", path.c_str());
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    // The server's clock, not time(): that one reads a coarse clock which can still show
    // the previous second.
    auto seconds_now = [] {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        return ts.tv_sec;
    };
    bool checked = false;
    for (int attempt = 0; attempt < 50 && !checked; ++attempt) {
        time_t before = seconds_now();
        int32_t age = static_cast<int32_t>(before - st.st_ctime);
        bool atAge = ev->is_recent(age);
        bool belowAge = ev->is_recent(age - 1);
        if (seconds_now() == before) {
            EXPECT_TRUE(atAge);
            EXPECT_FALSE(belowAge);
            checked = true;
        }
    }
    EXPECT_TRUE(checked);
    EXPECT_EQ(recent_limit_seconds(8), 300);
    EXPECT_EQ(recent_limit_seconds(11), 3600);
    snprintf(ev->ctimePath, sizeof ev->ctimePath, "%s", tree.path("100MEDIA", "gone").c_str());
    EXPECT_FALSE(ev->is_recent(3600));  // a file that cannot be examined is never recent
}

}  // namespace
}  // namespace korvel
