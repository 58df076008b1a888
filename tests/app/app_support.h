// Shared pieces of the app tests: a card in a temporary directory served by an in-process
// server, and running korvel-app's commands against it with their output captured.
#pragma once

#include <stdio.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "app/tool.h"
#include "support/temp_dir.h"
#include "support/test_server.h"

namespace korvel {
namespace apptest {

struct ToolRun {
    int rc = -1;
    std::string out, err;
};

// Runs korvel-app with args (without the program name) and captures both streams.
inline ToolRun run_tool(const std::vector<std::string>& args) {
    std::vector<std::string> words = {"korvel-app"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& w : words) {
        argv.push_back(&w[0]);
    }
    argv.push_back(nullptr);
    char *outBuf = nullptr, *errBuf = nullptr;
    size_t outLen = 0, errLen = 0;
    FILE* out = open_memstream(&outBuf, &outLen);
    FILE* err = open_memstream(&errBuf, &errLen);
    ToolRun r;
    r.rc = app::tool_main(static_cast<int>(words.size()), argv.data(), out, err);
    fclose(out);
    fclose(err);
    r.out.assign(outBuf, outLen);
    r.err.assign(errBuf, errLen);
    free(outBuf);
    free(errBuf);
    return r;
}

// Deterministic bytes that differ at every position a misplaced packet could land.
inline std::string pattern_bytes(size_t n, uint32_t seed) {
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        s[i] = static_cast<char>(x >> 24);
    }
    return s;
}

// A card (root/DCIM/100MEDIA) and a server on a free port serving it.
struct ServedCard {
    testsupport::TempDir tmp;
    std::string card = tmp.file("SD0");
    std::string media = card + "/DCIM/100MEDIA";
    std::string outDir = tmp.file("out");
    std::unique_ptr<testsupport::TestServer> server;

    ServedCard() {
        testsupport::make_dirs(media);
        testsupport::make_dirs(outDir);
    }
    void put(const std::string& name, const std::string& bytes) const {
        testsupport::write_file(media + "/" + name, bytes);
    }
    // Without a capability file given, the fixed path is moved to one that does not exist.
    void start(const std::string& capPath = "") {
        server.reset(new testsupport::TestServer(
            card, capPath.empty() ? tmp.file("absent-cap.xml") : capPath));
    }
    std::vector<std::string> with_port(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--port", std::to_string(server->port())});
        return args;
    }
    ToolRun tool(const std::vector<std::string>& args) const { return run_tool(with_port(args)); }
};

}  // namespace apptest
}  // namespace korvel
