// A card in a temporary directory and one event base driven on the test thread; the far end
// of a socketpair decodes what the handlers send.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "app/client.h"
#include "client/event_base.h"
#include "core/config.h"
#include "core/packet.h"
#include "support/temp_dir.h"

namespace korvel {
namespace transfertest {

using testsupport::make_dirs;
using testsupport::write_file;
using Replies = std::vector<app::Reply>;

using testsupport::pattern;

// The bytes of a burst: packets of 4096 bytes but the last, header offsets from `first` on.
inline std::string burst(const Replies& r, uint32_t msgType, const std::vector<uint32_t>& markers,
                         uint32_t first = 0) {
    EXPECT_EQ(r.size(), markers.size());
    std::string text;
    for (size_t i = 0; i < r.size() && i < markers.size(); ++i) {
        bool full = i + 1 == r.size() || r[i].payload.size() == 4096;
        EXPECT_EQ(std::make_tuple(r[i].reqType, r[i].msgType, r[i].marker, r[i].offset, full),
                  std::make_tuple(0u, msgType, markers[i], first + 4096 * uint32_t(i), true))
            << i;
        text.append(r[i].payload.begin(), r[i].payload.end());
    }
    return text;
}

// The one reply a request got: an acknowledgement's code, or the little-endian size reply.
inline uint32_t answer(const Replies& r, uint32_t msgType, uint32_t marker = 1) {
    if (r.size() != 1 || (r[0].reqType == 0 && r[0].payload.size() != 4)) {
        ADD_FAILURE() << "expected one acknowledgement or size, got " << r.size() << " replies";
        return 0;
    }
    EXPECT_EQ(std::make_tuple(r[0].msgType, r[0].marker, r[0].offset, r[0].ackFlag, r[0].ackValue),
              std::make_tuple(msgType, marker, 0u, r[0].reqType, 0u));
    const std::vector<uint8_t>& b = r[0].payload;
    return r[0].reqType == 1 ? r[0].ackCode
                             : b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

class TransferTest : public ::testing::Test {
protected:
    testsupport::TempDir tmp;
    std::string card = tmp.file("card");
    std::string location = card + "/DCIM";
    std::string capPath = tmp.file("camera_definition.xml");
    std::unique_ptr<CEventBase> eb;
    app::Client peer;
    int sv[2] = {-1, -1};

    void SetUp() override {
        make_dirs(location + "/100MEDIA");
        testing_seam::set_sd_root(card.c_str());
        testing_seam::set_capability_path(capPath.c_str());
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        peer.adopt_fd(dup(sv[1]));
        eb.reset(new CEventBase);
        ASSERT_EQ(configure(4096, 4), ACK_DONE);
    }
    void TearDown() override {
        eb.reset();
        close(sv[0]);
        close(sv[1]);
    }
    // Everything the handlers wrote; they run on this thread, so it is all in the socket.
    Replies replies() {
        Replies out;
        pollfd pfd{sv[1], POLLIN, 0};
        while (poll(&pfd, 1, 20) > 0) {
            out.emplace_back();
            if (peer.read_reply(out.back(), 1000) != app::CLIENT_OK || !out.back().crcOk) {
                ADD_FAILURE() << "unreadable reply";
                break;
            }
        }
        return out;
    }
    // Hands a data packet to the loop's dispatcher (header in host order); configuration,
    // download and metadata requests are answered there, on this thread.
    Replies request(uint8_t msgType, const std::string& payload) {
        CPacket p;
        std::vector<uint8_t> w = app::encode_packet(0, 1, msgType, 7, 1, 0, 0, payload.data(),
                                                    static_cast<uint32_t>(payload.size()));
        memcpy(p.buffer(), w.data(), w.size());
        p.unpackHeader();
        eb->event_base_process_data(sv[0], p);
        return replies();
    }
    uint32_t configure(uint16_t packsize, uint16_t blocks, const std::string& text = "",
                       bool userDefined = false) {
        std::vector<uint8_t> w = app::build_config_payload(packsize, blocks, text, userDefined);
        return answer(request(MSG_CONFIG, std::string(w.begin(), w.end())), MSG_CONFIG);
    }
    Replies download(const std::string& name) { return request(MSG_DOWNLOAD, name); }
    Replies metadata(const std::string& name) { return request(MSG_METADATA, name); }
    Replies chunk(uint32_t offset, uint32_t length, uint8_t msgType = 3) {
        eb->transfer_file_data(sv[0], msgType, offset, length);
        return replies();
    }
    void add(const std::string& name, const std::string& bytes) {
        write_file(location + "/100MEDIA/" + name, bytes);
    }
};

}  // namespace transfertest
}  // namespace korvel
