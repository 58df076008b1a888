// Catalogue names resolved into a directory and a file in both location modes, and the
// confinement check that keeps every resolved name on the card.
#include <string>

#include "transfer/paths.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

using Names = TransferTest;

enum Mode { DEFAULT, BY_POSTFIX, EMPTY_POSTFIX, UNCONFIGURED };

TEST_F(Names, ResolveInBothLocationModes) {
    struct Case {
        Mode mode;
        const char* name;
        bool ok;
        const char* file;
        const char* dir;  // below the location
    } cases[] = {
        {DEFAULT, "100MEDIA-IMG_0001.JPG", true, "IMG_0001.JPG", "/100MEDIA"},
        {DEFAULT, "100MEDIA-A-B.MP4", true, "A-B.MP4", "/100MEDIA"},
        {DEFAULT, "0-100MEDIA-X.JPG", true, "100MEDIA-X.JPG", "/0"},  // no prefix expected
        {BY_POSTFIX, "0-100MEDIA-IMG_0001.JPG", true, "IMG_0001.JPG", "/100MEDIA"},
        {BY_POSTFIX, "card-100MEDIA-IMG_0001.JPG", true, "IMG_0001.JPG", "/100MEDIA"},
        {BY_POSTFIX, "05-100MEDIA-X.JPG", true, "X.JPG", "/100MEDIA"},  // leading characters
        {BY_POSTFIX, "1-100MEDIA-IMG_0001.JPG", false, "", ""},
        {BY_POSTFIX, "car-100MEDIA-X.JPG", false, "", ""},
        {BY_POSTFIX, "0100MEDIAX.JPG", false, "", ""},
        {EMPTY_POSTFIX, "zz-100MEDIA-X.JPG", true, "X.JPG", "/100MEDIA"},
        {EMPTY_POSTFIX, "nodash", false, "", ""},
        {UNCONFIGURED, "100MEDIA-X.JPG", true, "X.JPG", "/100MEDIA"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        eb.reset(new CEventBase);
        std::string root = location;
        if (c.mode == DEFAULT) {
            ASSERT_EQ(configure(4096, 1), ACK_DONE);
        } else if (c.mode == BY_POSTFIX) {
            ASSERT_EQ(configure(4096, 1, card + "/", true), ACK_DONE);
        } else if (c.mode == EMPTY_POSTFIX) {
            ASSERT_EQ(configure(4096, 1, "7", true), ACK_DONE);
        } else {
            root = "";
        }
        std::string file = "untouched", dir = "untouched";
        EXPECT_EQ(eb->get_abs_file_dir(c.name, file, dir), c.ok ? 0 : -1);
        EXPECT_EQ(file, c.ok ? c.file : "untouched");
        EXPECT_EQ(dir, c.ok ? root + c.dir : "untouched");
    }
}

TEST_F(Names, ConfinementAcceptsOnlyPlainFieldsUnderTheCard) {
    struct Case {
        std::string root, file, dir;
        bool ok;
    } cases[] = {
        {location, "IMG.JPG", location + "/100MEDIA", true},
        {location, "A-B..JPG", location + "/100MEDIA", true},
        {location, "..", location + "/100MEDIA", false},
        {location, ".", location + "/100MEDIA", false},
        {location, "a/b", location + "/100MEDIA", false},
        {location, "", location + "/100MEDIA", false},
        {location, "x", location + "/..", false},
        {location, "x", location + "/.", false},
        {location, "x", location + "/a/b", false},
        {location, "x", location, false},        // no directory field
        {location, "x", location + "/", false},  // empty directory field
        {location, "x", tmp.file("DCIM/100MEDIA"), false},
        {"", "hostname", "/etc", false},  // before any configuration
        {"/etc", "x", "/etc/a", false},
        {card + "/../x", "x", card + "/../x/a", false},
        {card + "x/DCIM", "x", card + "x/DCIM/a", false},  // a sibling that shares the prefix
        {card, "x", card + "/a", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.root + " | " + c.dir + " | " + c.file);
        EXPECT_EQ(is_confined(c.root.c_str(), c.file, c.dir), c.ok);
    }
}

TEST_F(Names, StorageRootsAndIds) {
    EXPECT_EQ(get_storage_id(card), 0);
    EXPECT_EQ(get_storage_id(card + "/"), -1);
    EXPECT_EQ(get_storage_id(""), -1);
    EXPECT_EQ(get_storage_root(0), card);
    for (int32_t id : {-1, 1, 3, 5, 6}) {
        EXPECT_EQ(get_storage_root(id), "") << id;
    }
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel
