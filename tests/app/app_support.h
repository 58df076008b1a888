// Shared by the app tests: a card served by an in-process server, and korvel-app's commands
// run against it with both output streams captured.
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

namespace korvel::apptest {

struct ToolRun {
    int rc = -1;
    std::string out, err;
};

inline ToolRun run_tool(std::vector<std::string> words) {
    words.insert(words.begin(), "korvel-app");
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
    for (char& c : s) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 24);
    }
    return s;
}

// A card (SD0/DCIM/100MEDIA) and, once started, a server on a free port serving it.
struct ServedCard {
    testsupport::TempDir tmp;
    std::string card = tmp.file("SD0"), media = card + "/DCIM/100MEDIA", outDir = tmp.file("out");
    std::unique_ptr<testsupport::TestServer> server;

    ServedCard() {
        testsupport::make_dirs(media);
        testsupport::make_dirs(outDir);
    }
    void put(const std::string& name, const std::string& bytes) const {
        testsupport::write_file(media + "/" + name, bytes);
    }
    void start(const std::string& capPath) {
        server.reset(new testsupport::TestServer(card, capPath));
    }
    ToolRun tool(std::vector<std::string> args) const {
        args.insert(args.begin(), {"--port", std::to_string(server->port())});
        return run_tool(args);
    }
};

}  // namespace korvel::apptest
