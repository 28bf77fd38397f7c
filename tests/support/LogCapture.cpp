#include "support/LogCapture.h"

#include "Common/ZUBProConfig.h"
#include "Platform/SystemLog.h"

#include <algorithm>
#include <memory>

namespace zubtest {

struct LogCapture::Shared {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
};

LogCapture::LogCapture(bool enableDebug) : shared_(std::make_shared<Shared>()) {
    auto shared = shared_;
    zub::SystemLog::setSink([shared](const std::string& line) {
        std::lock_guard lock(shared->mutex);
        shared->lines.push_back(line);
    });
    if (enableDebug) ZUBProConfig::getInstance().setDebugEnable(true);
}

LogCapture::~LogCapture() {
    ZUBProConfig::getInstance().setDebugEnable(false);
    zub::SystemLog::setSink(nullptr);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->lines;
}

bool LogCapture::has(const std::string& line) const {
    std::lock_guard lock(shared_->mutex);
    return std::find(shared_->lines.begin(), shared_->lines.end(), line) != shared_->lines.end();
}

bool LogCapture::contains(const std::string& text) const {
    std::lock_guard lock(shared_->mutex);
    return std::any_of(shared_->lines.begin(), shared_->lines.end(),
                       [&](const std::string& l) { return l.find(text) != std::string::npos; });
}

void LogCapture::clear() {
    std::lock_guard lock(shared_->mutex);
    shared_->lines.clear();
}

}  // namespace zubtest
