// Reading a tag list file: opened only when it is a regular file, and taken
// line by line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tags/tag_line.h"

namespace plc {

// An open tag list file, closed when the object goes.
class TagListFile {
public:
    enum class Opened { Yes, CannotOpen, NotRegular };

    TagListFile() = default;
    ~TagListFile();
    TagListFile(const TagListFile &) = delete;
    TagListFile &operator=(const TagListFile &) = delete;

    // Opens without blocking, whatever the path names (a FIFO without a
    // writer, a device), and keeps the file only when it is a regular file.
    Opened open(const char *path);
    bool rewind();
    // Closes the file; false when the system reports an error.
    bool close();
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// One physical line of the file: at most kMaxLineLength characters are kept,
// the full length is counted, so an overlong line is seen as one line (never
// as several pieces that could each look like a tag line).
struct Line {
    std::array<char, kMaxLineLength> text;
    size_t kept = 0;
    uint64_t length = 0;
    bool complete = false; // ends with '\n'
    bool has_nul = false;
    std::string_view view() const { return {text.data(), kept}; }
};

class LineReader {
public:
    explicit LineReader(const TagListFile &file) : fd_(file.fd()) {}

    // The next line; false at the end of the file (or after a read error, or
    // past the size no tag list reaches).
    bool next(Line &line);
    bool read_error() const { return error_; }
    bool too_large() const { return too_large_; }

private:
    bool refill();

    int fd_;
    std::array<char, 4096> block_;
    size_t pos_ = 0;
    size_t len_ = 0;
    uint64_t total_ = 0;
    bool eof_ = false;
    bool error_ = false;
    bool too_large_ = false;
};

} // namespace plc
