// The dashboard's files (page, script, styles, the charting library), built into
// the binary from tools/collector/dashboard and the system's Chart.js at build
// time (assets.cmake), so the collector serves them itself: no CDN, nothing
// fetched from elsewhere, one file to deploy.
#pragma once

#include <string_view>

namespace zubcollector {

struct DashboardAsset {
    std::string_view name;         // "index.html", "app.js", "style.css", "chart.js"
    std::string_view contentType;
    std::string_view bytes;
};

/// The asset of that name, or nullptr.
const DashboardAsset* findDashboardAsset(std::string_view name);

}  // namespace zubcollector
