#pragma once

#include <string>

namespace Kestrel::Private {

// A document opened with its caller's rights. Every later step works on
// these descriptors, never on the path again, so a rename or a swapped link
// after the checks cannot change what is sent or which directory loses it.
class Document {
public:
    Document() = default;
    // Takes ownership of both descriptors (-1 for none).
    Document(std::string path, int directory, std::string name, int file);
    Document(Document&& other) noexcept;
    Document& operator=(Document&& other) noexcept;
    ~Document();

    // The path as the caller named it, for messages.
    const std::string& path() const { return documentPath; }
    // The directory holding it (O_PATH) and its name there.
    int directory() const { return directoryFd; }
    const std::string& name() const { return entryName; }
    // Read-only.
    int file() const { return fileFd; }

private:
    void close();

    std::string documentPath;
    int directoryFd = -1;
    std::string entryName;
    int fileFd = -1;
};

} // namespace Kestrel::Private
