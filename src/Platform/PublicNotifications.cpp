// The public notification hooks of ZUBPlatform.h over the in-process notification
// centre: plug-ins observe by name without seeing the centre itself.
#include <ZUBCocoa/ZUBPlatform.h>

#include "Common/ZUBProHelper.h"
#include "Platform/NotificationCenter.h"

#include <exception>
#include <string_view>

namespace zub {

std::uint64_t addNotificationObserver(OptionalText nameText, NotificationObserver observer) {
    // No name, as an empty one, observes every notification.
    const std::string name = std::move(nameText).text().value_or("");
    if (!observer) {
        ZUBProHelper::LogDebug("[WARN]empty observer for notification %@ ignored", name);
        return 0;
    }
    try {
        return NotificationCenter::defaultCenter().addObserver(
            name, [observer = std::move(observer)](const Notification& note) {
                // A plug-in's failure stays with the plug-in: the poster and the
                // other observers go on.
                try {
                    observer(note.name);
                } catch (const std::exception& e) {
                    ZUBProHelper::LogDebug("[ERROR]observer of %@ failed: %@", note.name, std::string_view(e.what()));
                } catch (...) {
                    ZUBProHelper::LogDebug("[ERROR]observer of %@ failed", note.name);
                }
            });
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("[ERROR]addNotificationObserver failed: %@", std::string_view(e.what()));
        return 0;
    }
}

void removeNotificationObserver(std::uint64_t id) {
    try {
        NotificationCenter::defaultCenter().removeObserver(id);
    } catch (const std::exception& e) {
        ZUBProHelper::LogDebug("[ERROR]removeNotificationObserver failed: %@", std::string_view(e.what()));
    }
}

}  // namespace zub
