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

void ZUBPro::trackPageViewBegin(zub::OptionalText page) {
    zubGuarded("trackPageViewBegin", [&] { ZUBPageEvent::reportPageEventBegin(page.text()); });
}
void ZUBPro::trackPageViewEnd(zub::OptionalText page) {
    zubGuarded("trackPageViewEnd", [&] { ZUBPageEvent::reportPageEventEnd(page.text()); });
}
void ZUBPro::trackPage(zub::OptionalText page, std::uint64_t duration) {
    zubGuarded("trackPage",
               [&] { ZUBPageEvent::reportPageEventDuration(page.text(), static_cast<std::int64_t>(duration)); });
}
void ZUBPro::trackActiveBegin() {
    zubGuarded("trackActiveBegin", [] { ZUBProActiveEvent::trackActiveBegin(); });
}
void ZUBPro::trackActiveEnd() {
    zubGuarded("trackActiveEnd", [] { ZUBProActiveEvent::trackActiveEnd(); });
}
void ZUBPro::trackCustomEvent(zub::OptionalText eventID, zub::Value dict) {
    zubGuarded("trackCustomEvent", [&] { ZUBProCustomEvent::reportCustomEvent(eventID.text(), std::move(dict)); });
}
void ZUBPro::trackCustomEvent(zub::OptionalText eventID, std::initializer_list<zub::Pair> pairs) {
    zubGuarded("trackCustomEvent", [&] {
        ZUBProCustomEvent::reportCustomEvent(eventID.text(), ZUBEventArgs::pack(pairs, eventID.text()));
    });
}
void ZUBPro::trackCustomEventBegin(zub::OptionalText eventID, const zub::Value& dict) {
    zubGuarded("trackCustomEventBegin", [&] { ZUBProCustomEvent::reportCustomEventBegin(eventID.text(), dict); });
}
void ZUBPro::trackCustomEventEnd(zub::OptionalText eventID, zub::Value dict) {
    zubGuarded("trackCustomEventEnd",
               [&] { ZUBProCustomEvent::reportCustomEventEnd(eventID.text(), std::move(dict)); });
}
void ZUBPro::trackCustomEventDuration(zub::OptionalText eventID, zub::Value dict, std::int64_t duration) {
    zubGuarded("trackCustomEventDuration",
               [&] { ZUBProCustomEvent::reportCustomEventDuration(eventID.text(), std::move(dict), duration); });
}
void ZUBPro::trackCustomEventDuration(zub::OptionalText eventID, std::initializer_list<zub::Pair> pairs,
                                      std::int64_t duration) {
    zubGuarded("trackCustomEventDuration", [&] {
        ZUBProCustomEvent::reportCustomEvent(eventID.text(), ZUBEventArgs::pack(pairs, eventID.text()), duration);
    });
}
void ZUBPro::reportLM(zub::OptionalText account) {
    zubGuarded("reportLM", [&] { ZUBLMEvent::reportLM(account.text()); });
}
void ZUBPro::reportAccount(zub::OptionalText account, std::uint64_t type, zub::OptionalText ext) {
    zubGuarded("reportAccount", [&] { ZUBProAccountEvent::reportAccount(account.text(), type, ext.text()); });
}
