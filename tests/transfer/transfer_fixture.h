// Shared set-up for the transfer tests: a card in a temporary directory, one event base
// driven directly on the test thread, and a socketpair whose far end decodes the replies.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/client.h"
#include "client/event_base.h"
#include "core/config.h"
#include "support/temp_dir.h"

namespace korvel {
namespace transfertest {

using testsupport::make_dirs;
using testsupport::write_file;
using Replies = std::vector<app::Reply>;

// A byte pattern that differs at every offset within a packet and between packets, so a
// payload from the wrong place never matches by accident.
inline std::string pattern(size_t n, uint32_t seed = 1) {
    std::string s(n, '\0');
    uint32_t x = seed;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 16);
    }
    return s;
}

inline std::string bytes_of(const app::Reply& r) {
    return std::string(r.payload.begin(), r.payload.end());
}

class TransferTest : public ::testing::Test {
protected:
    testsupport::TempDir tmp;
    std::string card = tmp.file("card");
    std::string location = card + "/DCIM";
    std::string capPath = tmp.file("camera_definition.xml");
    std::unique_ptr<CEventBase> eb;
    app::Client peer;  // reads what the event base sends
    int sv[2] = {-1, -1};

    void SetUp() override {
        make_dirs(location + "/100MEDIA");
        testing_seam::set_sd_root(card.c_str());
        testing_seam::set_capability_path(capPath.c_str());
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        int big = 4 << 20;  // whole bursts fit, so handlers never wait on the test thread
        setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        peer.adopt_fd(dup(sv[1]));
        eb.reset(new CEventBase);
    }
    void TearDown() override {
        eb.reset();
        close(sv[0]);
        close(sv[1]);
    }

    // A received data packet as the loop hands it to a handler: header in host order.
    void load(CPacket& p, uint8_t msgType, const void* payload, uint32_t len, uint32_t off = 0) {
        std::vector<uint8_t> w = app::encode_packet(0, 1, msgType, 7, 1, off, 0, payload, len);
        memcpy(p.buffer(), w.data(), w.size());
        p.unpackHeader();
    }
    // Every reply the handler has written; the handlers run on this thread, so everything
    // is in the socket by the time they return.
    Replies replies() {
        Replies out;
        pollfd pfd{sv[1], POLLIN, 0};
        while (poll(&pfd, 1, 20) > 0) {
            app::Reply r;
            if (peer.read_reply(r, 1000) != app::CLIENT_OK) {
                ADD_FAILURE() << "unreadable reply";
                break;
            }
            EXPECT_TRUE(r.crcOk);
            out.push_back(r);
        }
        return out;
    }
    // The single acknowledgement a request produced; 0 when it produced something else.
    uint32_t only_ack(uint32_t msgType, uint32_t marker = 1) {
        Replies r = replies();
        if (r.size() != 1 || r[0].reqType != 1) {
            ADD_FAILURE() << "expected one acknowledgement, got " << r.size() << " replies";
            return 0;
        }
        EXPECT_EQ(r[0].msgType, msgType);
        EXPECT_EQ(r[0].marker, marker);
        EXPECT_EQ(r[0].offset, 0u);
        EXPECT_EQ(r[0].ackFlag, 1u);
        EXPECT_EQ(r[0].ackValue, 0u);
        return r[0].ackCode;
    }

    uint32_t configure_raw(const std::vector<uint8_t>& payload) {
        CPacket p;
        load(p, 17, payload.data(), static_cast<uint32_t>(payload.size()));
        eb->process_data_file_config(sv[0], p);
        return only_ack(17);
    }
    uint32_t configure(uint16_t packsize, uint16_t blocks, const std::string& text = "",
                       bool userDefined = false) {
        return configure_raw(app::build_config_payload(packsize, blocks, text, userDefined));
    }
    std::string add(const std::string& dir, const std::string& name, const std::string& bytes) {
        std::string path = location + "/" + dir + "/" + name;
        make_dirs(location + "/" + dir);
        write_file(path, bytes);
        return path;
    }
    Replies download(const std::string& name) {
        CPacket p;
        load(p, 2, name.data(), static_cast<uint32_t>(name.size()));
        eb->process_data_file_download(sv[0], p);
        return replies();
    }
    Replies metadata(const std::string& name) {
        CPacket p;
        load(p, 19, name.data(), static_cast<uint32_t>(name.size()));
        eb->process_data_file_metadata(sv[0], p);
        return replies();
    }
    Replies chunk(uint32_t offset, uint32_t length, uint8_t msgType = 3) {
        eb->transfer_file_data(sv[0], msgType, offset, length);
        return replies();
    }
};

// The size reply: one data packet of type 2 whose payload is the size, little-endian.
inline uint32_t size_reply(const Replies& r) {
    if (r.size() != 1 || r[0].reqType != 0 || r[0].payload.size() != 4) {
        ADD_FAILURE() << "no size reply";
        return 0;
    }
    EXPECT_EQ(r[0].msgType, 2u);
    EXPECT_EQ(r[0].marker, 1u);
    const std::vector<uint8_t>& b = r[0].payload;
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

inline uint32_t ack_code(const Replies& r) {
    return r.size() == 1 && r[0].reqType == 1 ? r[0].ackCode : 0;
}

}  // namespace transfertest
}  // namespace korvel
