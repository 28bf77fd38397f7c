#include "Model/ZUBEventClasses.h"

#include "Model/ZUBLMEvent.h"
#include "Model/ZUBPageEvent.h"
#include "Model/ZUBProAccountEvent.h"
#include "Model/ZUBProActiveEvent.h"
#include "Model/ZUBProCustomEvent.h"
#include "Model/ZUBSessionEvent.h"
#include "Platform/KeyedArchiver.h"

#include <mutex>

void registerEventClasses() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Explicit calls: registrations in a static library's unreferenced objects
        // would be dropped by the linker.
        zub::ArchiveRegistry::registerType<ZUBProEvent>("ZUBProEvent");
        zub::ArchiveRegistry::registerType<ZUBSessionEvent>("ZUBSessionEvent");
        zub::ArchiveRegistry::registerType<ZUBPageEvent>("ZUBPageEvent");
        zub::ArchiveRegistry::registerType<ZUBProCustomEvent>("ZUBProCustomEvent");
        zub::ArchiveRegistry::registerType<ZUBProActiveEvent>("ZUBProActiveEvent");
        zub::ArchiveRegistry::registerType<ZUBProAccountEvent>("ZUBProAccountEvent");
        zub::ArchiveRegistry::registerType<ZUBLMEvent>("ZUBLMEvent");
    });
}
