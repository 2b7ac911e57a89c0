#include "support/Document.h"

#include <unistd.h>

#include <utility>

namespace Kestrel::Private {

Document::Document(std::string path, int directory, std::string name, int file)
    : documentPath(std::move(path))
    , directoryFd(directory)
    , entryName(std::move(name))
    , fileFd(file)
{
}

Document::Document(Document&& other) noexcept
    : documentPath(std::move(other.documentPath))
    , directoryFd(std::exchange(other.directoryFd, -1))
    , entryName(std::move(other.entryName))
    , fileFd(std::exchange(other.fileFd, -1))
{
}

Document& Document::operator=(Document&& other) noexcept
{
    if (this == &other)
        return *this;
    close();
    documentPath = std::move(other.documentPath);
    directoryFd = std::exchange(other.directoryFd, -1);
    entryName = std::move(other.entryName);
    fileFd = std::exchange(other.fileFd, -1);
    return *this;
}

Document::~Document()
{
    close();
}

void Document::close()
{
    if (directoryFd >= 0)
        ::close(directoryFd);
    if (fileFd >= 0)
        ::close(fileFd);
}

} // namespace Kestrel::Private
