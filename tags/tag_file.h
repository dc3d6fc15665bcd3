// Reading a tag list file: opened only when it is a regular file, taken line
// by line, and known by its identity and stamp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tags/tag_line.h"

namespace plc {

// Who a file is (device, inode) and what it looked like (size, modification
// and change times, to the nanosecond). Two equal stamps mean the same file
// with, as far as the system can tell, the same contents.
struct FileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modified_s = 0;
    int64_t modified_ns = 0;
    int64_t changed_s = 0;
    int64_t changed_ns = 0;

    bool operator==(const FileStamp &other) const;
    bool operator!=(const FileStamp &other) const { return !(*this == other); }
};

// The stamp of the file a path names (following links, as opening it does);
// false when there is no such file.
bool stamp_of(const char *path, FileStamp &stamp);

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
    // The stamp is known from NotRegular on.
    Opened open(const char *path);
    const FileStamp &stamp() const { return stamp_; }
    bool rewind();
    // Closes the file; false when the system reports an error.
    bool close();
    int fd() const { return fd_; }

private:
    int fd_ = -1;
    FileStamp stamp_;
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
