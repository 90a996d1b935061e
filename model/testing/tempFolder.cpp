#include "model/testing/tempFolder.h"

#include <atomic>
#include <fstream>
#include <random>
#include <stdexcept>

#include "model/utf8Path.h"

namespace corvelle {

TempFolder::TempFolder() {
    static std::atomic<unsigned> counter{0};
    static const unsigned run = std::random_device{}();
    folder_ = std::filesystem::temp_directory_path() /
              ("corvelle_test_" + std::to_string(run) + "_" + std::to_string(counter++));
    std::filesystem::create_directories(folder_);
}

TempFolder::~TempFolder() {
    std::error_code error;
    std::filesystem::remove_all(folder_, error);
}

std::string TempFolder::file(const std::string& name) const {
    const std::filesystem::path path = folder_ / utf8Path(name);
    std::filesystem::create_directories(path.parent_path());
    return utf8Text(path);
}

std::string TempFolder::path() const { return utf8Text(folder_); }

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream stream(utf8Path(path), std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), std::streamsize(bytes.size()));
    if (!stream) throw std::runtime_error("cannot write " + path);
}

}  // namespace corvelle
