// A directory that stands in for the machine's file-system root while it lives:
// zub::HostInfo reads every system file below it (restored to "/" afterwards).
// Files and links are created below it with paths written as on the real machine.
#pragma once

#include <filesystem>
#include <string>

namespace zubtest {

class FakeRoot {
public:
    /// A fresh, empty directory below the test's HOME, installed as the root.
    explicit FakeRoot(const std::string& name = "fakeroot");
    ~FakeRoot();
    FakeRoot(const FakeRoot&) = delete;
    FakeRoot& operator=(const FakeRoot&) = delete;

    const std::filesystem::path& path() const { return path_; }
    /// Writes `content` to `absolutePath` below the root (parents created).
    void write(const std::string& absolutePath, const std::string& content) const;
    /// Makes a directory (and parents) below the root.
    void mkdir(const std::string& absolutePath) const;
    /// Makes a symbolic link at `absolutePath` (below the root) pointing at
    /// `target` as given (not moved below the root).
    void symlink(const std::string& absolutePath, const std::string& target) const;

private:
    std::filesystem::path path_;
};

}  // namespace zubtest
