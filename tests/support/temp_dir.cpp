#include "support/temp_dir.hpp"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace orv::test {

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "orvane-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void TempDir::write(std::string_view relative, std::string_view content) const {
    std::filesystem::path p = path_ / relative;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string TempDir::read(std::string_view relative) const {
    std::ifstream in(path_ / relative, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

} // namespace orv::test
