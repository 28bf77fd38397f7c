// Drives the event store from a separate process, with the HOME of the test:
//   event_store_helper save <waiting> <retry> <tag>   files events, saves the log files
//   event_store_helper load                           loads them, prints "<dict> <md5> <eventID>" lines
#include "Dal/ZUBEventDal.h"
#include "Model/ZUBProCustomEvent.h"
#include "Platform/Bundle.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::shared_ptr<ZUBProCustomEvent> makeEvent(const std::string& id, int n) {
    auto e = std::make_shared<ZUBProCustomEvent>();
    e->setEventID(id);
    e->setType(1000);
    e->setTs(1700000000u + static_cast<std::uint64_t>(n));
    e->setKvs(zub::Value::object({{"n", n}}));
    e->setMd5(id + "-" + std::to_string(n));
    return e;
}

void fill(ZUBEventDictionary& dict, const std::string& tag, int count) {
    for (int i = 0; i < count; ++i) {
        auto e = makeEvent(tag, i);
        dict.set(*e->md5(), e);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string command = argv[1];
    // The same application as the test (each has a documents folder of its own).
    zub::Bundle::setInfoValue("CFBundleIdentifier", "com.example.eventstore");
    ZUBEventDal& store = ZUBEventDal::getInstance();
    if (command == "save" && argc == 5) {
        std::lock_guard lock(store.eventListLock());
        fill(store.toReportEvents(), std::string(argv[4]) + "w", std::atoi(argv[2]));
        fill(store.retryEvents(), std::string(argv[4]) + "r", std::atoi(argv[3]));
        store.saveLogfile();
        return 0;
    }
    if (command == "load") {
        store.loadLogfile();
        std::lock_guard lock(store.eventListLock());
        for (const auto& [key, event] : store.toReportEvents()) {
            auto custom = std::dynamic_pointer_cast<ZUBProCustomEvent>(event);
            std::printf("w %s %s\n", key.c_str(), custom ? custom->eventID().value_or("-").c_str() : "?");
        }
        for (const auto& [key, event] : store.retryEvents()) {
            auto custom = std::dynamic_pointer_cast<ZUBProCustomEvent>(event);
            std::printf("r %s %s\n", key.c_str(), custom ? custom->eventID().value_or("-").c_str() : "?");
        }
        return 0;
    }
    return 2;
}
