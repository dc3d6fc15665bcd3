// Helpers shared by the tag dictionary tests: a scratch directory, stdout
// capture, and an allocator that can be told to fail one allocation.
// Include from exactly one source file per test program (it replaces the
// global operator new).
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace tagtest {

// Number of allocations to let through before one fails; negative: never fail.
inline long g_fail_after = -1;

// Makes the allocation after `n` successful ones fail (once).
struct FailAllocation {
    explicit FailAllocation(long n) { g_fail_after = n; }
    ~FailAllocation() { g_fail_after = -1; }
    bool fired() const { return g_fail_after < 0; }
};

inline std::string captured(const std::function<void()> &step) {
    testing::internal::CaptureStdout();
    step();
    return testing::internal::GetCapturedStdout();
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/plc_tags_XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();
        path_ = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path_); }

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
    std::string write(const std::string &name, const std::string &content) const {
        std::ofstream(file(name), std::ios::binary | std::ios::trunc) << content;
        return file(name);
    }

private:
    std::string path_;
};

// Runs the working directory in `dir` for the life of the object (tag lists
// are opened by bare name).
class InDirectory {
public:
    explicit InDirectory(const std::string &dir) : old_(std::filesystem::current_path()) {
        std::filesystem::current_path(dir);
    }
    ~InDirectory() { std::filesystem::current_path(old_); }

private:
    std::filesystem::path old_;
};

} // namespace tagtest

void *operator new(std::size_t size) {
    if (tagtest::g_fail_after == 0) {
        tagtest::g_fail_after = -1;
        throw std::bad_alloc();
    }
    if (tagtest::g_fail_after > 0) --tagtest::g_fail_after;
    if (void *p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

// The replacement operator new above allocates with malloc, so free is right.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
