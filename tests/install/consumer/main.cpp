// A program outside the ZUBCocoa tree, built against the installed library: it
// includes the umbrella header, uses the host API and the plug-in API (a
// ZUBProEvent subclass, archived and restored), and registers the device with
// the collector named on its command line.
//
//   zub-consumer http://127.0.0.1:PORT   -> prints "mid <32 hex digits>", exits 0
#include <ZUBCocoa/ZUBCocoa.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

namespace {

class NoteEvent : public ZUBProEvent {
public:
    NoteEvent() { setType(3100); }
    explicit NoteEvent(const zub::Coder& coder) : ZUBProEvent(coder), note(coder.decodeStringForKey("note")) {}
    std::string className() const override { return "NoteEvent"; }
    void encode(zub::Value& envelope) override {
        if (note) envelope["note"] = *note;
    }
    void encodeWithCoder(zub::Coder& coder) const override {
        ZUBProEvent::encodeWithCoder(coder);
        coder.encodeString(note, "note");
    }
    std::optional<std::string> note;
};

}  // namespace

ZUB_REGISTER_ARCHIVABLE(NoteEvent);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: zub-consumer COLLECTOR-URL\n";
        return 2;
    }
    zub::setBundleInfo("CFBundleIdentifier", "org.example.consumer");
    zub::setCollectorAddress(argv[1]);
    if (zub::endpoints().midURL != std::string(argv[1]) + "/?t=ios&ver=2.0") {
        std::cerr << "endpoints not taken: " << zub::endpoints().midURL << "\n";
        return 1;
    }
    ZUBPro::setChannel("outside");
    ZUBPro::startWithAppKey("consumer-key");
    ZUBPro::trackCustomEvent("installed", {{"via", "package"}});

    // The plug-in side: a subclass crosses the library boundary both ways.
    auto note = std::make_shared<NoteEvent>();
    note->note = "hello";
    const zub::Data archived = zub::KeyedArchiver::archivedDataWithRootObject(note);
    auto restored = zub::KeyedUnarchiver::unarchiveObjectWithData<NoteEvent>(archived);
    if (!restored || restored->note != "hello") {
        std::cerr << "a subclass did not come back from its archive\n";
        return 1;
    }
    note->setSid(ZUBPro::getSessionID(false));
    ZUBPro::reportEvent(note);

    // flush waits for the registration and for the collector to take the events.
    const bool delivered = zub::flush(std::chrono::seconds(20));
    const std::string mid = ZUBPro::getDeviceIDs().value("mid", "");
    ZUBPro::onWillApplicationWillTerminate();
    if (!delivered || mid.size() != 32) {
        std::cerr << "no mid from " << argv[1] << " or events left unsent\n";
        return 1;
    }
    std::cout << "mid " << mid << "\n";
    return 0;
}
