#include "Common/ZUBProConfig.h"

#ifndef ZUB_REPORT_HOST
#define ZUB_REPORT_HOST "127.0.0.1:47800"
#endif
#ifndef ZUB_FLAVOUR_REPORT_HOST
#define ZUB_FLAVOUR_REPORT_HOST ZUB_REPORT_HOST
#endif
#ifndef ZUB_MID_HOST
#define ZUB_MID_HOST "127.0.0.1:47800"
#endif
#ifndef ZUB_FLAVOUR
#define ZUB_FLAVOUR ""
#endif

ZUBProConfig& ZUBProConfig::getInstance() {
    static ZUBProConfig* instance = new ZUBProConfig();  // never destroyed
    return *instance;
}

std::string ZUBProConfig::reportURLForFlavour(const std::string& flavour) {
    if (flavour == "HB") return std::string("http://") + ZUB_FLAVOUR_REPORT_HOST + "/mstat/report";
    return std::string("http://") + ZUB_REPORT_HOST + "/mstat/report";
}

ZUBProConfig::ZUBProConfig() {
    // Defaults, in the order the settings are documented.
    reportURL_ = reportURLForFlavour(ZUB_FLAVOUR);
    midURL_ = std::string("http://") + ZUB_MID_HOST + "/?t=ios&ver=2.0";
    storePrefix_ = "";
    rc4Key_ = "5f0c2e7a9b14d386c0e1a2f47d95b3e8";
    maxOnceSendCount_ = 10;
    sessionTimeoutSecs_ = 30;
    periodSecs_ = 90;
    vacuumTimeLength_ = 60;
    isSmartReport_ = true;
    isOnlineEnv_ = true;
    zubChannel_ = "Mac App Developer";
    maxTimingEventCount_ = 1024;
    maxStoreEventCount_ = 1024;
    maxReportEventLength_ = 4096;
    maxSendRetryCount_ = 3;
    maxImportSendRetryCount_ = 10;
    reportStrategy_ = 8;
    timeoutInterval_ = 5;
}
