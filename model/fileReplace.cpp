#include "model/fileReplace.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "model/platform/files.h"
#include "model/utf8Path.h"

namespace corvelle {

namespace {

constexpr std::size_t kWriteBytes = std::size_t(1) << 20;

FileFault& fileFault() {
    static FileFault fault;
    return fault;
}

template <class Step>
std::error_code run(FileStep step, const Step& work) {
    const FileFault& fault = fileFault();
    if (fault)
        if (const std::error_code error = fault(step)) return error;
    return work();
}

std::error_code writePieces(platform::FileHandle file, std::span<const std::string_view> pieces) {
    for (std::string_view piece : pieces)
        while (!piece.empty()) {
            const std::string_view part = piece.substr(0, kWriteBytes);
            if (const std::error_code error =
                    run(FileStep::Write, [&] { return platform::writeFile(file, part); }))
                return error;
            piece.remove_prefix(part.size());
        }
    return {};
}

/// The whole content goes to the disk under the name `path`.
std::error_code writeDurably(const std::filesystem::path& path, const std::filesystem::path& like,
                             std::span<const std::string_view> pieces) {
    platform::FileHandle file = -1;
    std::error_code error =
        run(FileStep::Open, [&] { return platform::createFile(path, like, file); });
    if (error) return error;
    error = writePieces(file, pieces);
    if (!error) error = run(FileStep::Flush, [&] { return platform::flushFile(file); });
    const std::error_code fault = run(FileStep::Close, [] { return std::error_code(); });
    const std::error_code closed = platform::closeFile(file);
    if (!error) error = fault ? fault : closed;
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
    return error;
}

}  // namespace

void replaceFile(const std::string& path, std::span<const std::string_view> pieces) {
    const auto failWrite = [&](std::error_code error) {
        throw FileError("cannot write '" + path + "'", error);
    };
    const std::filesystem::path target = utf8Path(path), sibling = utf8Path(path + ".tmp");
    std::error_code ignored;
    // A device or a folder must not be renamed away.
    const auto there = std::filesystem::status(target, ignored);
    if (path.empty() ||
        (std::filesystem::exists(there) && !std::filesystem::is_regular_file(there)))
        failWrite(std::make_error_code(std::errc::not_supported));

    if (const std::error_code error = writeDurably(sibling, target, pieces)) failWrite(error);
    if (const std::error_code error =
            run(FileStep::Rename, [&] { return platform::renameFile(sibling, target); })) {
        std::filesystem::remove(sibling, ignored);
        throw FileError("cannot replace '" + path + "': " + error.message(), error);
    }
    if (const std::error_code error =
            run(FileStep::FlushFolder, [&] { return platform::flushFolder(target.parent_path()); }))
        failWrite(error);
}

void replaceFile(const std::string& path, std::string_view bytes) {
    replaceFile(path, std::span(&bytes, 1));
}

std::string readWholeFile(const std::string& path) {
    const auto fail = [&](std::errc error) {
        throw FileError("cannot read '" + path + "'", std::make_error_code(error));
    };
    const std::filesystem::path file = utf8Path(path);
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) fail(std::errc::is_a_directory);
    std::ifstream stream(file, std::ios::binary);
    if (!stream) fail(std::errc::no_such_file_or_directory);
    std::string text;
    // The size is a hint only: pipes have none, and a file may grow while it is read.
    if (const auto size = std::filesystem::file_size(file, error); !error) text.reserve(size + 1);
    constexpr std::size_t kReadBytes = std::size_t(4) << 20;
    for (;;) {
        const std::size_t held = text.size();
        const std::size_t wanted =
            text.capacity() > held ? std::min(text.capacity() - held, kReadBytes) : kReadBytes;
        text.resize(held + wanted);
        stream.read(text.data() + held, std::streamsize(wanted));
        text.resize(held + std::size_t(stream.gcount()));
        if (stream.bad()) fail(std::errc::io_error);
        if (stream.eof()) return text;
    }
}

void setFileFault(FileFault fault) { fileFault() = std::move(fault); }

}  // namespace corvelle
