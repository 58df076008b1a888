// Transfer configuration: the two words, the 200 MiB burst limit, payload lengths and the
// location texts.
#include <string>
#include <vector>

#include "transfer_fixture.h"

namespace korvel {
namespace transfertest {
namespace {

void put_be32(std::vector<uint8_t>& p, size_t at, uint32_t v) {
    p[at] = static_cast<uint8_t>(v >> 24);
    p[at + 1] = static_cast<uint8_t>(v >> 16);
    p[at + 2] = static_cast<uint8_t>(v >> 8);
    p[at + 3] = static_cast<uint8_t>(v);
}

// A payload of `len` bytes: text at 0, then whichever of the two words fit.
std::vector<uint8_t> payload(const std::string& text, uint32_t config, uint32_t blocks,
                             size_t len = 1032) {
    std::vector<uint8_t> p(len < 1032 ? 1032 : len, 0);
    memcpy(p.data(), text.data(), text.size());
    put_be32(p, 1024, config);
    put_be32(p, 1028, blocks);
    p.resize(len);
    return p;
}

using Config = TransferTest;

TEST_F(Config, WordsDecodeIntoParametersAndTheBurstLimitIs200MiB) {
    struct Case {
        uint32_t config, blocks;
        uint8_t userDef;
        uint32_t version, packsize, count;
        uint32_t ack;
    } cases[] = {
        {0x80001000, 4, 1, 0, 4096, 4, ACK_DONE},
        {0x7FFF0200, 0xFFFF0008, 0, 32767, 512, 8, ACK_DONE},  // high block bits ignored
        {0x0000FFFF, 3200, 0, 0, 65535, 3200, ACK_DONE},       // 209,712,000 bytes
        {0x0000FFFF, 3201, 0, 0, 65535, 3201, ACK_TOO_LARGE},  // kept although refused
        {0x00000000, 0, 0, 0, 0, 0, ACK_DONE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blocks);
        eb.reset(new CEventBase);
        EXPECT_EQ(configure_raw(payload("", c.config, c.blocks)), c.ack);
        EXPECT_EQ(eb->userDefConfig, c.userDef);
        EXPECT_EQ(eb->softwareVerConfig, c.version);
        EXPECT_EQ(eb->userDefPacksize, c.packsize);
        EXPECT_EQ(eb->userDefBlocks, c.count);
        std::string where = c.ack == ACK_DONE ? card + "/DCIM" : "";
        EXPECT_EQ(eb->resourceLocation, where);
        EXPECT_EQ(eb->resourceLocationId, c.ack == ACK_DONE ? 0 : -1);
    }
}

TEST_F(Config, PayloadLengthDecidesWhichWordsCount) {
    ASSERT_EQ(configure(1024, 8), ACK_DONE);
    // Without the words only the location changes.
    EXPECT_EQ(configure_raw(payload("", 0x80000200, 3, 100)), ACK_DONE);
    EXPECT_EQ(eb->userDefPacksize, 1024u);
    EXPECT_EQ(eb->userDefBlocks, 8u);
    // The configuration word alone resets the block count to 1.
    EXPECT_EQ(configure_raw(payload("", 0x00000200, 3, 1030)), ACK_DONE);
    EXPECT_EQ(eb->userDefPacksize, 512u);
    EXPECT_EQ(eb->userDefBlocks, 1u);
    // 2047 bytes are read; 2048 get no reply and change nothing.
    EXPECT_EQ(configure_raw(payload("", 0x00000800, 5, 2047)), ACK_DONE);
    EXPECT_EQ(eb->userDefBlocks, 5u);
    CPacket p;
    std::vector<uint8_t> tooLong = payload("", 0x00000100, 9, 2048);
    load(p, 17, tooLong.data(), 2048);
    eb->process_data_file_config(sv[0], p);
    EXPECT_TRUE(replies().empty());
    EXPECT_EQ(eb->userDefPacksize, 2048u);
    EXPECT_EQ(eb->userDefBlocks, 5u);
}

TEST_F(Config, LocationTextsAllLeadToTheCard) {
    struct Case {
        std::string text;
        std::string postfix;  // "prev" when the text leaves it alone
    } cases[] = {
        {card + "/", "card"}, {"/mnt/disk", "disk"}, {"/mnt/disk/", "disk"}, {"7", "prev"},
        {"abc", "prev"},      {"", "prev"},          {" -0", "prev"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        eb.reset(new CEventBase);
        ASSERT_EQ(configure(4096, 1, "/x/prev", true), ACK_DONE);
        EXPECT_EQ(configure(4096, 1, c.text, true), ACK_DONE);
        EXPECT_EQ(eb->resourceLocation, card + "/DCIM");
        EXPECT_EQ(eb->resourceLocationId, 0);
        EXPECT_EQ(eb->userDefLocation, 1);
        EXPECT_STREQ(eb->locPostfix, c.postfix.c_str());
    }
    // Back to the default location: the flag goes, the postfix stays.
    EXPECT_EQ(configure(4096, 1, "/mnt/other", false), ACK_DONE);
    EXPECT_EQ(eb->userDefLocation, 0);
    EXPECT_STREQ(eb->locPostfix, "prev");
}

TEST_F(Config, FullLengthTextNeverTakesInTheWords) {
    std::string text = "/x/" + std::string(1021, 'q');  // 1024 bytes, no NUL
    ASSERT_EQ(configure_raw(payload(text, 0x80001000, 2)), ACK_DONE);
    EXPECT_EQ(std::string(eb->locPostfix), std::string(1021, 'q'));
    EXPECT_EQ(eb->userDefPacksize, 4096u);
    EXPECT_EQ(eb->userDefBlocks, 2u);
}

}  // namespace
}  // namespace transfertest
}  // namespace korvel
