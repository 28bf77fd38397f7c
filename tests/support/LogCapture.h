// Captures the lines the library writes to the system log while it is alive,
// with debug logging switched on (and restored to off afterwards).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zubtest {

class LogCapture {
public:
    explicit LogCapture(bool enableDebug = true);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    /// True when some line equals `line` exactly.
    bool has(const std::string& line) const;
    /// True when some line contains `text`.
    bool contains(const std::string& text) const;
    void clear();

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace zubtest
