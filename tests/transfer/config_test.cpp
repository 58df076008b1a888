// Transfer configuration (the two words, the 200 MiB limit, payload lengths, location texts),
// name resolution in each location mode, and the check that keeps names on the card.
#include <string>
#include <tuple>

#include "transfer/paths.h"
#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

// An empty location text, then the two big-endian words, cut to `len` bytes.
std::string words(uint32_t config, uint32_t blocks, size_t len = 1032) {
    std::string p(1032, '\0');
    for (int i = 0; i < 4; ++i) {
        p[1024 + i] = static_cast<char>(config >> (24 - 8 * i));
        p[1028 + i] = static_cast<char>(blocks >> (24 - 8 * i));
    }
    p.resize(len);
    return p;
}

class Config : public TransferTest {
protected:
    uint32_t config_with(const std::string& payload) {
        return answer(request(MSG_CONFIG, payload), MSG_CONFIG);
    }
};

// The exact 200 MiB boundary is fuzz_config's and the app tool test's.
TEST_F(Config, WordsDecodeIntoParametersAndTheBurstLimitIs200MiB) {
    struct Case {
        uint32_t config, blocks, userDef, version, packsize, count, code;
    } cases[] = {
        {0x80001000, 4, 1, 0, 4096, 4, ACK_DONE},
        {0x7FFF0200, 0xFFFF0008, 0, 32767, 512, 8, ACK_DONE},  // high block bits ignored
        {0x0000FFFF, 3201, 0, 0, 65535, 3201, ACK_TOO_LARGE},  // kept although refused
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blocks);
        eb.reset(new CEventBase);
        EXPECT_EQ(config_with(words(c.config, c.blocks)), c.code);
        EXPECT_EQ(std::make_tuple(eb->userDefConfig.load(), eb->softwareVerConfig.load(),
                                  eb->userDefPacksize.load(), eb->userDefBlocks.load()),
                  std::make_tuple(c.userDef, c.version, c.packsize, c.count));
        EXPECT_EQ(eb->resourceLocation, c.code == ACK_DONE ? location : "");
        EXPECT_EQ(eb->resourceLocationId, c.code == ACK_DONE ? 0 : -1);
    }
}

TEST_F(Config, PayloadLengthDecidesWhichWordsCount) {
    ASSERT_EQ(configure(1024, 8), ACK_DONE);
    EXPECT_EQ(config_with(words(0x80000200, 3, 100)), ACK_DONE);  // no words
    EXPECT_EQ(eb->userDefPacksize, 1024u);
    EXPECT_EQ(eb->userDefBlocks, 8u);
    EXPECT_EQ(config_with(words(0x00000200, 3, 1030)), ACK_DONE);  // one: 1 block
    EXPECT_EQ(eb->userDefPacksize, 512u);
    EXPECT_EQ(eb->userDefBlocks, 1u);
    EXPECT_EQ(config_with(words(0x00000800, 5, 2047)), ACK_DONE);
    EXPECT_EQ(eb->userDefBlocks, 5u);
    EXPECT_TRUE(request(MSG_CONFIG, words(0x00000100, 9, 2048)).empty());  // ignored, no reply
    EXPECT_EQ(eb->userDefPacksize, 2048u);
    EXPECT_EQ(eb->userDefBlocks, 5u);
}

TEST_F(Config, LocationTextsAllLeadToTheCard) {
    const std::string full = "/x/" + std::string(1021, 'q');  // 1024 bytes, no NUL
    struct Case {
        std::string text, postfix;  // "prev" when the text leaves the postfix alone
    } cases[] = {
        {card + "/", "card"}, {"/mnt/disk", "disk"}, {"/mnt/disk/", "disk"}, {"7", "prev"},
        {"abc", "prev"},      {"", "prev"},          {" -0", "prev"},        {full, full.substr(3)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20));
        eb.reset(new CEventBase);
        ASSERT_EQ(configure(4096, 1, "/x/prev", true), ACK_DONE);
        EXPECT_EQ(configure(2048, 2, c.text, true), ACK_DONE);
        // Location, its id and flag, and the words: a full text is never joined to them.
        EXPECT_EQ(std::make_tuple(std::string(eb->resourceLocation), eb->resourceLocationId,
                                  eb->userDefLocation, eb->userDefPacksize.load(),
                                  eb->userDefBlocks.load()),
                  std::make_tuple(location, 0, 1, 2048u, 2u));
        EXPECT_STREQ(eb->locPostfix, c.postfix.c_str());
    }
    // Back to the default location: the flag goes, the postfix stays.
    EXPECT_EQ(configure(4096, 1, "/mnt/other", false), ACK_DONE);
    EXPECT_EQ(eb->userDefLocation, 0);
    EXPECT_STREQ(eb->locPostfix, full.substr(3).c_str());
}

using Names = TransferTest;

enum Mode { DEFAULT, BY_POSTFIX, EMPTY_POSTFIX };

TEST_F(Names, ResolveInEachLocationMode) {
    struct Case {
        Mode mode;
        const char *name, *file;  // file null: refused
    } cases[] = {
        {DEFAULT, "100MEDIA-A-B.MP4", "A-B.MP4"},
        {BY_POSTFIX, "0-100MEDIA-IMG_0001.JPG", "IMG_0001.JPG"},
        {BY_POSTFIX, "card-100MEDIA-IMG_0001.JPG", "IMG_0001.JPG"},
        {BY_POSTFIX, "1-100MEDIA-IMG_0001.JPG", nullptr},  // neither the id nor the postfix
        {BY_POSTFIX, "0100MEDIAX.JPG", nullptr},           // no location field
        {EMPTY_POSTFIX, "zz-100MEDIA-X.JPG", "X.JPG"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        eb.reset(new CEventBase);
        std::string text = c.mode == BY_POSTFIX ? card + "/" : c.mode == DEFAULT ? "" : "7";
        ASSERT_EQ(configure(4096, 1, text, c.mode != DEFAULT), ACK_DONE);
        std::string file = "untouched", dir = "untouched";
        EXPECT_EQ(eb->get_abs_file_dir(c.name, file, dir), c.file ? 0 : -1);
        EXPECT_EQ(file, c.file ? c.file : "untouched");
        EXPECT_EQ(dir, c.file ? location + "/100MEDIA" : "untouched");
    }
}

TEST_F(Names, ConfinementAcceptsOnlyPlainFieldsUnderTheCard) {
    const std::string media = location + "/100MEDIA";
    EXPECT_TRUE(is_confined(location.c_str(), "A-B..JPG", media));
    EXPECT_TRUE(is_confined(card.c_str(), "x", card + "/a"));
    for (const char* file : {"..", ".", "a/b", ""}) {
        EXPECT_FALSE(is_confined(location.c_str(), file, media)) << file;
    }
    for (std::string dir : {location + "/..", location + "/.", location + "/a/b", location,
                            location + "/", tmp.file("DCIM/100MEDIA")}) {
        EXPECT_FALSE(is_confined(location.c_str(), "x", dir)) << dir;
    }
    // Locations off the card: unconfigured, elsewhere, escaping, a sibling sharing the prefix.
    for (std::string root : {std::string(), std::string("/etc"), card + "/../x", card + "x/DCIM"}) {
        EXPECT_FALSE(is_confined(root.c_str(), "x", root + "/a")) << root;
    }
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel
