// Helpers shared by the tag dictionary tests: a scratch directory, file
// writing, and an allocator that can be told to fail one allocation.
// Include from exactly one source file per test program (it replaces the
// global operator new).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
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
    FailAllocation(const FailAllocation &) = delete;
    FailAllocation &operator=(const FailAllocation &) = delete;
    bool fired() const { return g_fail_after < 0; }
};

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/plc_tags_XXXXXX";
        const char *made = mkdtemp(pattern);
        if (made == nullptr) std::abort();
        path_ = made;
    }
    ~TempDir() {
        const std::string command = "rm -rf '" + path_ + "'";
        if (std::system(command.c_str()) != 0) {
            std::fprintf(stderr, "could not remove %s\n", path_.c_str());
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

    std::string write(const std::string &name, const std::string &content) const {
        const std::string full = file(name);
        std::ofstream out(full, std::ios::binary | std::ios::trunc);
        out << content;
        return full;
    }

private:
    std::string path_;
};

// Runs the working directory in `dir` for the life of the object (tag lists
// are opened by bare name).
class InDirectory {
public:
    explicit InDirectory(const std::string &dir) {
        if (getcwd(old_, sizeof old_) == nullptr || chdir(dir.c_str()) != 0) std::abort();
    }
    ~InDirectory() {
        if (chdir(old_) != 0) std::abort();
    }
    InDirectory(const InDirectory &) = delete;
    InDirectory &operator=(const InDirectory &) = delete;

private:
    char old_[4096];
};

} // namespace tagtest

void *operator new(std::size_t size) {
    if (tagtest::g_fail_after == 0) {
        tagtest::g_fail_after = -1;
        throw std::bad_alloc();
    }
    if (tagtest::g_fail_after > 0) {
        --tagtest::g_fail_after;
    }
    if (void *p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
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
