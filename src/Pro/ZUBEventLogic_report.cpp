// The request and reply half of the report pipeline.
#include "Common/Network/ZUBHttp.h"
#include "Common/Network/ZUBProReachability.h"
#include "Common/ZUBProConfig.h"
#include "Common/ZUBProHelper.h"
#include "Dal/ZUBEventDal.h"
#include "Platform/Clock.h"
#include "Pro/ZUBEventLogic.h"
#include "Pro/ZUBOnlineConfig.h"

namespace {

constexpr std::int64_t kReportTimeLimit = 10;

// Length of a UTF-8 text in UTF-16 code units: one per character, two for those
// outside the basic plane (four-byte sequences).
std::size_t utf16Length(const std::string& text) {
    std::size_t units = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) ++units;  // a lead byte starts a character
        if (c >= 0xF0) ++units;           // four-byte sequence: a surrogate pair
    }
    return units;
}

bool isNetworkFailure(const std::optional<zub::Value>& reply) {
    if (!reply || !reply->is_object()) return false;
    auto error = reply->find(responseErrorKey);
    if (error == reply->end() || !error->is_object()) return false;
    auto code = error->find("code");
    if (code == error->end() || !code->is_number_integer()) return false;
    switch (code->get<std::int64_t>()) {
        case -1009:
        case -1005:
        case -1004:
        case -1001:
        case 306:
            return true;
        default:
            return false;
    }
}

}  // namespace

void ZUBEventLogic::doReportEvents(EventList batch) {
    if (batch.empty()) {
        ZUBProHelper::LogDebug("contents is empty");
        return;
    }
    queue_.async([this, batch = std::move(batch)] {
        {
            // A batch taken at start may go before the journal opened: open it now,
            // so the reply settles the journal's entries of these events too.
            std::lock_guard lock(eventListLock_);
            journalReady();
        }
        const zub::Data body = getRequestData(batch).value_or(zub::Data{});
        const std::string url = ZUBProConfig::getInstance().reportURL().value_or("");
        doAfReceiveData(ZUBHttp::getInstance().httpPost(body, kReportTimeLimit, url));
    });
}

std::optional<zub::Data> ZUBEventLogic::getRequestData(const EventList& batch) {
    const std::uint64_t maxLength = ZUBProConfig::getInstance().maxReportEventLength();
    std::string body = "[";
    std::size_t items = 0;
    for (const auto& event : batch) {
        const std::optional<std::string> json = event->toJsonString();
        const std::size_t length = json ? utf16Length(*json) : 0;
        if (length >= maxLength && event->type() != 3) {
            // Too long to ever be accepted: dropped for good.
            ZUBProHelper::LogDebug("[WARN]event %@ (type %@) dropped: its JSON has %@ UTF-16 units, the limit is "
                                   "below %@",
                                   event->md5().value_or("?"), event->type(), static_cast<std::uint64_t>(length),
                                   maxLength);
            std::lock_guard lock(eventListLock_);
            if (event->md5()) {
                ZUBEventDal& store = ZUBEventDal::getInstance();
                store.toReportEvents().erase(*event->md5());
                store.retryEvents().erase(*event->md5());
                journalRetire(*event);
            }
            continue;
        }
        if (!json || json->empty()) continue;
        if (items++ > 0) body += ",";
        body += *json;
    }
    if (items == 0) return std::nullopt;
    body += "]";
    ZUBProHelper::LogDebug("Report data: %@", body);
    return zub::Data(body.begin(), body.end());
}

void ZUBEventLogic::doAfReceiveData(const std::optional<zub::Value>& reply) {
    if (!reply) {
        handleReportFailed(reply);
    } else if (!reply->is_object()) {
        // Not understood: the batch stays as it is and the next cycle sends it again.
        ZUBProHelper::LogDebug("Not NSDictionary for decoded object:%@", *reply);
    } else {
        ZUBProHelper::LogDebug("server return : %@", *reply);
        auto ret = reply->find("ret");
        if (ret == reply->end()) {
            ZUBProHelper::LogDebug("no ret return");
            handleReportFailed(reply);
        } else if (ZUBProHelper::valueDescription(*ret) == "0") {
            {
                std::lock_guard lock(eventListLock_);
                ZUBEventDal& store = ZUBEventDal::getInstance();
                for (const auto& event : sendingEvents_) {
                    if (!event->md5()) continue;
                    store.toReportEvents().erase(*event->md5());
                    store.retryEvents().erase(*event->md5());
                    journalRetire(*event);
                    rememberDelivered(*event);
                }
                sendingEvents_.clear();
                // The collector is reachable: a good moment to say what was dropped.
                reportDrops();
            }
            ZUBOnlineConfig::getInstance().updateConfigs(*reply);
        } else {
            handleReportFailed(reply);
        }
    }

    {
        std::lock_guard lock(eventListLock_);
        refillFromJournal();
    }
    isSendingCacheEvent_ = false;
    if (networkStatus() == 0) return;
    queue_.async([this] { reportEvents(); });
}

void ZUBEventLogic::handleReportFailed(const std::optional<zub::Value>& reply) {
    const bool network = isNetworkFailure(reply);
    ZUBProConfig& config = ZUBProConfig::getInstance();
    std::lock_guard lock(eventListLock_);
    ZUBEventDal& store = ZUBEventDal::getInstance();
    ZUBEventDictionary& waiting = store.toReportEvents();
    ZUBEventDictionary& retry = store.retryEvents();
    for (const auto& event : sendingEvents_) {
        const std::uint64_t now = zub::Clock::nowSeconds();
        event->setTs(now);
        if (network) {
            event->setIsWrongWifi(true);
            event->setLastReportTs(now);
            continue;
        }
        event->setIsWrongWifi(false);
        event->setRetryNum(event->retryNum() + 1);
        const auto limit = static_cast<std::int64_t>(event->isImportant() ? config.maxImportSendRetryCount()
                                                                          : config.maxSendRetryCount());
        if (!event->md5()) continue;
        const std::string& key = *event->md5();
        if (waiting.contains(key)) {
            waiting.erase(key);
            if (event->retryNum() < limit) retry.set(key, event);
        }
        if (retry.contains(key)) {
            if (event->retryNum() >= limit) {
                retry.erase(key);
            } else {
                retry.set(key, event);
            }
        }
        if (event->retryNum() >= limit) {
            ZUBProHelper::LogDebug("event %@ dropped after %@ failed attempts", key, event->retryNum());
            journalRetire(*event);
        }
    }
    sendingEvents_.clear();
}
