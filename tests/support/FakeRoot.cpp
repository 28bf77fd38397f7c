#include "support/FakeRoot.h"

#include "Platform/HostInfo.h"
#include "support/TempHome.h"

#include <fstream>

namespace zubtest {
namespace {

std::filesystem::path below(const std::filesystem::path& root, const std::string& absolutePath) {
    return root / std::filesystem::path(absolutePath).relative_path();
}

}  // namespace

FakeRoot::FakeRoot(const std::string& name) : path_(TempHome::makeDir(name)) {
    zub::HostInfo::setRoot(path_);
}

FakeRoot::~FakeRoot() {
    zub::HostInfo::setRoot({});
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void FakeRoot::write(const std::string& absolutePath, const std::string& content) const {
    const auto p = below(path_, absolutePath);
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
}

void FakeRoot::mkdir(const std::string& absolutePath) const {
    std::filesystem::create_directories(below(path_, absolutePath));
}

void FakeRoot::symlink(const std::string& absolutePath, const std::string& target) const {
    const auto p = below(path_, absolutePath);
    std::filesystem::create_directories(p.parent_path());
    std::filesystem::create_symlink(target, p);
}

}  // namespace zubtest
