#include "support/soak_client.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>

#include <cjson/cJSON.h>

#include "app/tool.h"
#include "support/temp_dir.h"

namespace korvel {
namespace testsupport {

AppRun run_app(uint16_t port, std::vector<std::string> args) {
    if (port != 0) {
        args.insert(args.begin(), {"--port", std::to_string(port)});
    }
    args.insert(args.begin(), "korvel-app");
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(&a[0]);
    }
    argv.push_back(nullptr);
    char *outBuf = nullptr, *errBuf = nullptr;
    size_t outLen = 0, errLen = 0;
    FILE* out = open_memstream(&outBuf, &outLen);
    FILE* err = open_memstream(&errBuf, &errLen);
    AppRun r;
    r.rc = app::tool_main(static_cast<int>(args.size()), argv.data(), out, err);
    fclose(out);
    fclose(err);
    r.out.assign(outBuf, outLen);
    r.err.assign(errBuf, errLen);
    free(outBuf);
    free(errBuf);
    return r;
}

std::string clean_session(uint16_t port, uint32_t peer, int minEntries, const std::string& dir,
                          const std::string& name, const std::string& bytes) {
    AppRun ls = run_app(port, {"--peer", std::to_string(peer), "ls", "--json"});
    if (ls.rc != 0 || catalogue_entries(ls.out) < minEntries) {
        return "catalogue: exit " + std::to_string(ls.rc) + " " + ls.err;
    }
    if (name.empty()) {
        return "";
    }
    AppRun get = run_app(port, {"--peer", std::to_string(peer + 1), "get", name, "-o", dir});
    std::string got = read_file(dir + "/" + name);
    unlink((dir + "/" + name).c_str());
    return get.rc == 0 && got == bytes ? "" : "download of " + name + ": " + get.err;
}

int catalogue_entries(const std::string& text) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(text.c_str()), cJSON_Delete);
    cJSON* media = cJSON_GetObjectItem(root.get(), "media");
    return cJSON_IsArray(media) ? cJSON_GetArraySize(media) : -1;
}

int open_fd_count() {
    namespace fs = std::filesystem;
    // Less the directory stream's own descriptor.
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {})) - 1;
}

long heap_in_use_kib() {
    malloc_trim(0);
    struct mallinfo2 mi = mallinfo2();
    return static_cast<long>((mi.uordblks + mi.hblkhd) / 1024);
}

int fds_settle_to(int bound) {
    eventually([bound] { return open_fd_count() <= bound; });
    return open_fd_count();
}

}  // namespace testsupport
}  // namespace korvel
