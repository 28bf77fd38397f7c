// Where the library sends its reports and registers the device.
//
// Both endpoints are fixed when the library is built; an unchanged build reaches
// zub-collector on 127.0.0.1:47800. A host that reports to another collector (or
// a test or demo that starts one on a free port) points the library at it here,
// best before ZUBPro::startWithAppKey so that the first registration and report
// already go there:
//
//   zub::setCollectorAddress("http://127.0.0.1:41234");
//   // or, when the two protocols are served at different places:
//   zub::setEndpoints("https://stats.example.com/mstat/report",
//                     "https://ids.example.com/?t=ios&ver=2.0");
//
// A change made later applies from the next request on. The settings last for
// the process; nothing is stored. All functions are thread-safe and never throw.
#pragma once

#include <ZUBCocoa/ZUBExport.h>
#include <ZUBCocoa/ZUBText.h>

#include <string>

namespace zub {

/// The two URLs the library posts to.
struct Endpoints {
    std::string reportURL;  ///< report batches ("/mstat/report" on a collector)
    std::string midURL;     ///< device registration ("/?t=ios&ver=2.0" on a collector)
};

/// Sets both URLs. Each must be an absolute http:// or https:// URL with a host;
/// when either is not (or is absent: a null pointer), the call is logged to the
/// debug log, changes nothing and returns false.
ZUB_EXPORT bool setEndpoints(OptionalText reportURL, OptionalText midURL);

/// Sets both URLs for a collector that serves both protocols at one address:
/// `baseURL` is "http://host:port" (or https, a trailing "/" is allowed), and the
/// URLs become baseURL + "/mstat/report" and baseURL + "/?t=ios&ver=2.0".
/// A base URL with a path, query or no host is logged, changes nothing and
/// returns false.
ZUB_EXPORT bool setCollectorAddress(OptionalText baseURL);

/// The URLs in force now.
ZUB_EXPORT Endpoints endpoints();

}  // namespace zub
