#include "support/FaultyFileSystem.h"

namespace zubtest {

FaultyFileSystem::FaultyFileSystem() : FileSystemWrapper(zub::FileSystem::posix()) {
    zub::AtomicFile::install(this);
}

FaultyFileSystem::~FaultyFileSystem() {
    zub::AtomicFile::install(nullptr);
}

void FaultyFileSystem::failReads(int count, int error, std::string pathPart) {
    std::lock_guard lock(mutex_);
    reads_ = {count, error, std::move(pathPart)};
}

void FaultyFileSystem::failWrites(int count, int error) {
    std::lock_guard lock(mutex_);
    writes_ = {count, error, ""};
}

int FaultyFileSystem::injected() const {
    std::lock_guard lock(mutex_);
    return injected_;
}

bool FaultyFileSystem::take(Fault& fault, const std::string& path, int& error) {
    std::lock_guard lock(mutex_);
    if (fault.count <= 0 || path.find(fault.pathPart) == std::string::npos) return false;
    --fault.count;
    ++injected_;
    error = fault.error;
    return true;
}

std::optional<zub::Data> FaultyFileSystem::readFile(const std::string& path, int& error) {
    if (take(reads_, path, error)) return std::nullopt;
    return FileSystemWrapper::readFile(path, error);
}

bool FaultyFileSystem::writeTemporaryFile(const std::string& target, const zub::Data& data, unsigned mode,
                                          std::string& temporaryPath, int& error) {
    if (take(writes_, target, error)) return false;
    return FileSystemWrapper::writeTemporaryFile(target, data, mode, temporaryPath, error);
}

}  // namespace zubtest
