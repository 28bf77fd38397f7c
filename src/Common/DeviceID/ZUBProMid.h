// ZUBProMid: registers the device with the identifier server, which answers with
// the device's mid. Until a mid is stored, report cycles keep events waiting.
//
// reportMid queues one registration on "ZUBMidDispatcher" and returns at once;
// the registration posts {"et":5,"ver":1,"ts","ifv","ioa","mid","ui"} to midURL
// (5 s limit) and stores the "mid" of a reply whose "ret" is "0". There is no
// retry: the next attempt is the next start.
#pragma once

#include "Platform/SerialQueue.h"

#include <ZUBCocoa/ZUBValue.h>

class ZUBProMid {
public:
    static ZUBProMid& getInstance();
    ZUBProMid(const ZUBProMid&) = delete;
    ZUBProMid& operator=(const ZUBProMid&) = delete;

    void reportMid();
    zub::Data getRequestData();
    void handleReportFailed();
    /// Handles a decoded registration reply (run on the queue by reportMid).
    void handleReply(const std::optional<zub::Value>& reply);

    /// {"mid","ifa","oia","ifv","oid","rvt"} from the device identifier store.
    /// Before a push token is stored, "rvt" is left out: the dictionary holds the
    /// other five entries (a host must not crash for want of a token).
    zub::Value getDeviceIDs();

    zub::SerialQueue& taskQueue() { return taskQueue_; }

private:
    ZUBProMid() = default;
    zub::SerialQueue taskQueue_{"ZUBMidDispatcher"};
};
