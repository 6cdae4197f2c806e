/*
 * File created -> event delivered: a pulled FileMon (FileMon_read on the
 * thread that made the file) against inotify read directly (poll and read
 * of an inotify descriptor, the event's name compared). Each iteration
 * makes a file in a folder of its own (on tmpfs where there is one, so the
 * file system's own cost stays small and equal), waits for its event,
 * removes it and waits for that event too.
 */
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include "BaseLib.h"
#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>
#endif

namespace {

std::string bench_dir(const char* name) {
    std::error_code ec;
    std::string root = std::filesystem::is_directory("/dev/shm", ec) ? "/dev/shm" : "/tmp";
    std::string d = root + "/vekbench-" + name;
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    return d;
}

void make_file(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        std::fclose(f);
    }
}

void BM_filemon_created(benchmark::State& state) {
    std::string dir = bench_dir("filemon");
    FileMon* m = nullptr;
    if (FileMon_new(dir.c_str(), 0, nullptr, nullptr, &m) != 0) {
        state.SkipWithError("FileMon_new");
        return;
    }
    std::string path = dir + "/f";
    for (auto _ : state) {
        make_file(path);
        VekMonEvt e;
        while (FileMon_read(m, &e, 1000, 0) == 0 && !(e.type == VEK_MON_ADDED && !std::strcmp(e.path, "f"))) {
        }
        std::remove(path.c_str());
        while (FileMon_read(m, &e, 1000, 0) == 0 && !(e.type == VEK_MON_REMOVED && !std::strcmp(e.path, "f"))) {
        }
    }
    FileMon_delete(m);
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_filemon_created)->UseRealTime();

#ifndef _WIN32
void BM_inotify_created(benchmark::State& state) {
    std::string dir = bench_dir("inotify");
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    inotify_add_watch(fd, dir.c_str(), IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO);
    std::string path = dir + "/f";
    alignas(struct inotify_event) char buf[4096];
    auto wait_for = [&](uint32_t mask) {
        bool seen = false;
        while (!seen) {
            struct pollfd p = {fd, POLLIN, 0};
            poll(&p, 1, 1000);
            ssize_t n = read(fd, buf, sizeof buf);
            for (char* q = buf; n > 0 && q < buf + n;) {
                auto* e = (struct inotify_event*)q;
                seen = seen || ((e->mask & mask) && !std::strcmp(e->name, "f"));
                q += sizeof(struct inotify_event) + e->len;
            }
        }
    };
    for (auto _ : state) {
        make_file(path);
        wait_for(IN_CREATE);
        std::remove(path.c_str());
        wait_for(IN_DELETE);
    }
    close(fd);
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_inotify_created)->UseRealTime();
#endif

} // namespace
