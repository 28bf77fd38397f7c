// ZUBProOpenUDID: a device-wide identifier that all cooperating applications of
// the user share without a server.
//
// Each application keeps its own record in its user defaults under "OpenUDID"
// (a dictionary: "OpenUDID" the identifier, "OpenUDID_slot" the slot this
// application writes, "OpenUDID_appUID" the application's unique id,
// "OpenUDID_createdTS" and "OpenUDID_optOutTS" dates as seconds since 1970) and
// mirrors it, keyed-archived, into one of 100 named pasteboards
// "org.OpenUDID.slot.0" ... "org.OpenUDID.slot.99" under the type
// "org.OpenUDID". On its first call in a process it polls all slots, takes the
// identifier seen most often (ties: the identifier first seen latest in slot
// order wins), repairs its own record and slot, and caches the answer for the
// rest of the process. The identifier is 40 lower-case hex digits; an
// application that opted out gets forty "0" characters.
//
// Unreadable slot content (not an archive, not a dictionary) counts as an empty,
// free slot. A stored record that is not a dictionary is treated as absent; a
// record or slot value of an unexpected type (an identifier that is not a
// string, an opt-out date that is not a number) counts as absent.
//
// Thread-safe: the session cache and the poll are guarded by one lock, so
// concurrent first calls compute once and all return the same value.
#pragma once

#include "Platform/Pasteboard.h"

#include <ZUBCocoa/ZUBValue.h>

#include <cstdint>
#include <string>

/// The error object of valueWithError: domain "org.OpenUDID", a code and
/// {"description": text}.
struct ZUBProOpenUDIDError {
    std::string domain;
    std::int64_t code = 0;
    zub::Value userInfo = zub::Value::object();

    /// The text under "description" ("" when there is none).
    std::string description() const;
};

class ZUBProOpenUDID {
public:
    ZUBProOpenUDID() = delete;

    static constexpr const char* kOpenUDIDDomain = "org.OpenUDID";
    static constexpr const char* kOpenUDIDSlotPBPrefix = "org.OpenUDID.slot.";
    static constexpr int kOpenUDIDRedundancySlots = 100;

    /// The identifier; same as valueWithError(nullptr).
    static std::string value();
    /// The identifier, never empty. When `error` is given it is always set, also
    /// on success: code 0 "OpenUDID in cache from first call" (served from the
    /// session cache), code 0 "OpenUDID succesfully retrieved", code 1 "Application
    /// with unique id <id> is opted-out from OpenUDID as of <date>", or code 2 (the
    /// local identifier differs from the most frequent one in the slots).
    static std::string valueWithError(ZUBProOpenUDIDError* error);
    /// Marks (true) or clears (false) this application's opt-out in its record and
    /// clears the session cache; the slots are updated by the next value call.
    static void setOptOut(bool optOutValue);

    // Internal steps, exposed for tests.
    /// The dictionary archived in the pasteboard under "org.OpenUDID"; an empty
    /// dictionary when there is none or it cannot be read.
    static zub::Value _getDictFromPasteboard(const zub::Pasteboard& pasteboard);
    /// Archives the dictionary into the pasteboard under "org.OpenUDID".
    static void _setDict(const zub::Value& dict, const zub::Pasteboard& pasteboard);
    /// 32 hex digits of the MD5 of a fresh UUID text, then 8 of a random 32-bit
    /// number: 40 lower-case hex digits.
    static std::string _generateFreshOpenUDID();
};
