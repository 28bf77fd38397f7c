// The dashboard's JSON API, version 1: GET /api/v1/VIEW?parameters.
//
//   apps                                   the application keys that reported
//   overview  [app, range | from & to, tz, bucket]
//   pages     [the same, limit]
//   events    [the same, limit]            custom events
//   audience  [the same, limit]
//   devices   [the same, q, limit, offset]
//   device    mid [app, limit]             one device's summary and newest events
//   live      [app, after, limit]          the newest events
//
// Parameters are checked before anything is asked of the database: an unknown
// view is 404, an unknown, repeated or malformed parameter, a range that is
// empty, backwards or too long, and a limit beyond 1000 are 400, each with
// {"error": {"status": N, "message": "..."}}. Values reach SQL only as bound
// parameters (DashboardQueries). Shapes of the answers: the collector's README.
#pragma once

#include "Database.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace zubcollector {

struct ApiAnswer {
    int status = 200;
    zub::Value body;
};

inline constexpr std::size_t kMaxApiLimit = 1000;

/// Answers the view named by `view` (the path after /api/v1/) with the query
/// `params`, reading `db`. `now` (seconds since 1970) anchors the preset ranges.
ApiAnswer answerApi(Database& db, std::string_view view, const std::multimap<std::string, std::string>& params,
                    std::int64_t now);

/// The error answer the API gives for `status` and `message`.
ApiAnswer apiError(int status, const std::string& message);

}  // namespace zubcollector
