#include "tests/support/DeepTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/Descriptor.h"

namespace testsupport {

bool buildChain(int top, int depth, const std::function<bool(int, int)>& atLevel)
{
    int fd = ::openat(top, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; fd >= 0 && level < depth; ++level) {
        if ((atLevel && !atLevel(fd, level)) || ::mkdirat(fd, "d", 0755) != 0) {
            ::close(fd);
            return false;
        }
        const int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

bool buildChain(const std::string& path, int depth, const std::function<bool(int, int)>& atLevel)
{
    const Descriptor top = openFolder(path);
    return top.isOpen() && buildChain(top.get(), depth, atLevel);
}

Descriptor buildLongPath(const std::string& top, std::size_t length, std::string& path)
{
    const std::string name(250, 'd');
    path = top;
    Descriptor folder = openFolder(top);
    while (folder.isOpen() && path.size() <= length) {
        if (::mkdirat(folder.get(), name.c_str(), 0755) != 0) {
            return Descriptor();
        }
        folder = Descriptor(::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        path += "/" + name;
    }
    return folder;
}

bool makeFileAt(int folder, const char* name)
{
    const int file = ::openat(folder, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0) {
        return false;
    }
    const bool written = ::write(file, name, 1) == 1;
    ::close(file);
    return written;
}

}  // namespace testsupport
