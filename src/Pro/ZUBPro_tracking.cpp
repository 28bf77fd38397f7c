// The facade's tracking operations: each forwards to the event class that owns it,
// with nothing of the library's escaping to the host.
#include <ZUBCocoa/ZUBPro.h>

#include "Common/ZUBProHelper.h"
#include "Model/ZUBLMEvent.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProAccountEvent.h"
#include "Model/ZUBProActiveEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Pro/ZUBProGuard.h"

void ZUBPro::trackPageViewBegin(const std::optional<std::string>& page) {
    zubGuarded("trackPageViewBegin", [&] { ZUBPageEvent::reportPageEventBegin(page); });
}
void ZUBPro::trackPageViewEnd(const std::optional<std::string>& page) {
    zubGuarded("trackPageViewEnd", [&] { ZUBPageEvent::reportPageEventEnd(page); });
}
void ZUBPro::trackPage(const std::optional<std::string>& page, std::uint64_t duration) {
    zubGuarded("trackPage", [&] { ZUBPageEvent::reportPageEventDuration(page, static_cast<std::int64_t>(duration)); });
}
void ZUBPro::trackActiveBegin() {
    zubGuarded("trackActiveBegin", [] { ZUBProActiveEvent::trackActiveBegin(); });
}
void ZUBPro::trackActiveEnd() {
    zubGuarded("trackActiveEnd", [] { ZUBProActiveEvent::trackActiveEnd(); });
}
void ZUBPro::trackCustomEvent(const std::optional<std::string>& eventID, zub::Value dict) {
    zubGuarded("trackCustomEvent", [&] { ZUBProCustomEvent::reportCustomEvent(eventID, std::move(dict)); });
}
void ZUBPro::trackCustomEventBegin(const std::optional<std::string>& eventID, const zub::Value& dict) {
    zubGuarded("trackCustomEventBegin", [&] { ZUBProCustomEvent::reportCustomEventBegin(eventID, dict); });
}
void ZUBPro::trackCustomEventEnd(const std::optional<std::string>& eventID, zub::Value dict) {
    zubGuarded("trackCustomEventEnd", [&] { ZUBProCustomEvent::reportCustomEventEnd(eventID, std::move(dict)); });
}
void ZUBPro::trackCustomEventDuration(const std::optional<std::string>& eventID, zub::Value dict,
                                      std::int64_t duration) {
    zubGuarded("trackCustomEventDuration",
               [&] { ZUBProCustomEvent::reportCustomEventDuration(eventID, std::move(dict), duration); });
}
void ZUBPro::reportLM(const std::optional<std::string>& account) {
    zubGuarded("reportLM", [&] { ZUBLMEvent::reportLM(account); });
}
void ZUBPro::reportAccount(const std::optional<std::string>& account, std::uint64_t type,
                           const std::optional<std::string>& ext) {
    zubGuarded("reportAccount", [&] { ZUBProAccountEvent::reportAccount(account, type, ext); });
}
