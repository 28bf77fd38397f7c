// Named pasteboards: small typed blobs that every application of the user can
// read and write, the stand-in for the platform's named pasteboards.
//
// Storage: <dataHome>/ZUBCocoa/pasteboards/<name>/<type>, one file per type
// (mode 0600, directories 0700), shared by every application of the user. Names
// and types become directory entries through Paths::encodeComponent, so any name
// maps to one entry inside the root. Each write replaces the blob of
// one type atomically (AtomicFile), so two processes writing at once leave one
// complete blob, never a mixture; a reader sees the old or the new blob.
//
// A Pasteboard is a light handle (the name and its directory); it holds no open
// files or caches, and any number of handles to one name may exist. Thread-safe
// and process-safe; nothing throws.
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <optional>
#include <string>
#include <vector>

namespace zub {

class Pasteboard {
public:
    /// The pasteboard of that name, creating it when it does not exist yet.
    /// std::nullopt only when it cannot be created (logged).
    static std::optional<Pasteboard> pasteboardWithName(const std::string& name);
    /// The pasteboard of that name if it exists; nothing is created.
    static std::optional<Pasteboard> existingPasteboardWithName(const std::string& name);
    /// The directory holding every pasteboard.
    static std::string rootDirectory();

    const std::string& name() const { return name_; }
    const std::string& directory() const { return directory_; }

    /// The blob of that type, or std::nullopt when there is none (or it cannot be
    /// read).
    std::optional<Data> dataForType(const std::string& type) const;
    /// Replaces the blob of that type atomically. False (logged) on failure.
    bool setData(const Data& data, const std::string& type) const;
    /// The types that hold a blob.
    std::vector<std::string> types() const;
    /// Removes every blob; the pasteboard itself stays.
    bool clearContents() const;
    /// Removes the pasteboard altogether.
    bool releaseGlobally() const;

private:
    Pasteboard(std::string name, std::string directory)
        : name_(std::move(name)), directory_(std::move(directory)) {}

    std::string name_;
    std::string directory_;
};

}  // namespace zub
