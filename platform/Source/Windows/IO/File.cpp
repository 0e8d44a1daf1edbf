#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <stdexcept>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Core/StringFormat.h"
#include "Data/Values.h"
#include "Platform/Files.h"
#include "Platform/RichError.h"

namespace Platform::Windows::IO::impl {

using Interfaces::FileHandle;
using RichError::ThrowLastWin32;

// Shared implementation of IFile for I = IFile or ISynchrounousFile.
template <class I>
class GenericFileImplT : public Core::ObjectImplBase<I> {
public:
    GenericFileImplT(FileHandle handle, uint32_t desiredAccess, uint32_t shareMode)
        : handle_(handle), desiredAccess_(desiredAccess), shareMode_(shareMode) {
        if (handle_ == Interfaces::InvalidFileHandle)
            throw std::runtime_error(
                "Handle must be valid before passing it to this object. Also current object takes ownership of "
                "the handle and manages its lifetime by itself!");
        // A file open for reading only that nobody else may write keeps its size, which is read
        // once; one we may write ourselves is asked each time.
        if ((desiredAccess_ & GenericWrite) == 0 && (shareMode_ & FileShareWrite) == 0) size_ = QuerySize();
    }

    ~GenericFileImplT() override { ::close(handle_); }

    uint64_t GetSize() override { return size_ != 0 ? size_ : QuerySize(); }
    FileHandle GetHandle() override { return handle_; }

    uint32_t _abi_GetAttributes(Core::IErrorCode** ppError) override {
        uint32_t attributes = 0;
        Core::AbiGuard(
            [&] {
                struct stat info {};
                const std::string path = Path();
                if (::stat(path.c_str(), &info) != 0) ThrowLastWin32("Failed to read attributes of " + path);
                attributes = info.st_mode;
            },
            ppError);
        return attributes;
    }

    bool _abi_SetAttributes(uint32_t attributes, Core::IErrorCode** ppError) override {
        return Core::AbiGuard(
            [&] {
                if (::fchmod(handle_, attributes & 07777) != 0) ThrowLastWin32("Failed to set attributes of " + Path());
            },
            ppError);
    }

    bool _abi_GetPath(Data::Interfaces::IString** ppPath, Core::IErrorCode** ppError) override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppPath);
                *ppPath = Data::String::Create(Path()).Detach();
            },
            ppError);
    }

    uint32_t GetDesiredAccess() override { return desiredAccess_; }
    uint32_t GetShareMode() override { return shareMode_; }

protected:
    std::string Path() const {
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", handle_);
        std::string path(PATH_MAX, '\0');
        const ssize_t length = ::readlink(link, path.data(), path.size());
        if (length <= 0) ThrowLastWin32("File path not found from current handle. This should not happen ever!");
        path.resize(static_cast<size_t>(length));
        return path;
    }

    uint64_t QuerySize() const {
        struct stat info {};
        if (::fstat(handle_, &info) != 0) return 0;
        return static_cast<uint64_t>(info.st_size);
    }

    FileHandle handle_;
    uint32_t desiredAccess_;
    uint32_t shareMode_;
    uint64_t size_ = 0;
};

using GenericFileImpl = GenericFileImplT<Interfaces::IFile>;

class SyncFileImpl final : public GenericFileImplT<Interfaces::ISynchrounousFile> {
public:
    using GenericFileImplT::GenericFileImplT;

    uint32_t _abi_Read(void* buffer, uint64_t size, Core::IErrorCode** ppError) override {
        uint64_t done = 0;
        Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(buffer);
                auto* bytes = static_cast<char*>(buffer);
                while (done < size) {
                    const uint64_t chunk = std::min<uint64_t>(size - done, 0xFFFFFFFFu);
                    const ssize_t n = ::read(handle_, bytes + done, static_cast<size_t>(chunk));
                    if (n < 0 && errno == EINTR) continue;
                    if (n < 0) ThrowLastWin32("Failed to read from file");
                    if (n == 0) break;
                    done += static_cast<uint64_t>(n);
                }
            },
            ppError);
        return static_cast<uint32_t>(done);
    }

    uint32_t _abi_Write(const void* buffer, uint64_t size, Core::IErrorCode** ppError) override {
        uint64_t done = 0;
        Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(buffer);
                const auto* bytes = static_cast<const char*>(buffer);
                while (done < size) {
                    const uint64_t chunk = std::min<uint64_t>(size - done, 0xFFFFFFFFu);
                    const ssize_t n = ::write(handle_, bytes + done, static_cast<size_t>(chunk));
                    if (n < 0 && errno == EINTR) continue;
                    if (n < 0) ThrowLastWin32("Failed to write to file");
                    if (n == 0) break;
                    done += static_cast<uint64_t>(n);
                }
            },
            ppError);
        return static_cast<uint32_t>(done);
    }

    bool _abi_Seek(int64_t position, Core::IErrorCode** ppError) override {
        return Core::AbiGuard([&] { SeekTo(position, SEEK_SET); }, ppError);
    }

    bool _abi_SeekToEnd(Core::IErrorCode** ppError) override {
        return Core::AbiGuard([&] { SeekTo(0, SEEK_END); }, ppError);
    }

    uint64_t _abi_GetPosition(Core::IErrorCode** ppError) override {
        uint64_t position = 0;
        Core::AbiGuard([&] { position = SeekTo(0, SEEK_CUR); }, ppError);
        return position;
    }

private:
    uint64_t SeekTo(int64_t offset, int whence) {
        const off_t position = ::lseek(handle_, static_cast<off_t>(offset), whence);
        if (position < 0) ThrowLastWin32("Failed to move the file pointer");
        return static_cast<uint64_t>(position);
    }
};

namespace {

int OpenFlags(uint32_t desiredAccess, uint32_t disposition) {
    int flags = O_CLOEXEC;
    const bool read = (desiredAccess & GenericRead) != 0;
    const bool write = (desiredAccess & GenericWrite) != 0;
    if (read && write)
        flags |= O_RDWR;
    else if (write)
        flags |= O_WRONLY;
    else if (read)
        flags |= O_RDONLY;
    else
        flags |= O_PATH;
    switch (disposition) {
    case CreateNew: flags |= O_CREAT | O_EXCL; break;
    case CreateAlways: flags |= O_CREAT | O_TRUNC; break;
    case OpenAlways: flags |= O_CREAT; break;
    case TruncateExisting: flags |= O_TRUNC; break;
    default: break;
    }
    return flags;
}

Core::Result<Interfaces::IFile> CreateFileResult(const char* path, uint32_t desiredAccess, uint32_t shareMode,
                                                 uint32_t disposition, uint32_t flags) {
    Core::Result<Interfaces::IFile> result;
    _abi_CreateFile(path, result.value.ReceiveAddress(), desiredAccess, shareMode, disposition, 0, flags, 0, 0,
                    result.error.ReceiveAddress());
    return result;
}

} // namespace

} // namespace Platform::Windows::IO::impl

namespace Platform::Windows::IO {

bool _abi_CreateFile(const char* path, Interfaces::IFile** ppFile, uint32_t desiredAccess, uint32_t shareMode,
                     uint32_t disposition, uint32_t attributes, uint32_t flags, uint32_t extraFlags,
                     uint32_t extraFlags2, Core::IErrorCode** ppError) {
    (void)attributes;
    (void)flags;
    (void)extraFlags2;
    bool opened = false;
    const bool ok = Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(path);
            Core::CheckResultAddress(ppFile);
            if ((extraFlags & FileFlagOverlapped) != 0 && desiredAccess != 0)
                throw std::runtime_error("Support for async files not yet implemented");

            const Interfaces::FileHandle handle = ::open(path, impl::OpenFlags(desiredAccess, disposition), 0666);
            if (handle < 0) {
                RichError::MakeWin32ErrorObject(
                    static_cast<uint32_t>(errno),
                    Core::StringFormat("Failed to open or create file at location %s", path), ppError);
                return;
            }
            if (desiredAccess != 0)
                *ppFile = new impl::SyncFileImpl(handle, desiredAccess, shareMode);
            else
                *ppFile = new impl::GenericFileImpl(handle, desiredAccess, shareMode);
            opened = true;
        },
        ppError);
    return ok && opened;
}

Core::Result<Interfaces::IFile> OpenFileForReading(const char* path) {
    return impl::CreateFileResult(path, GenericRead, FileShareRead | FileShareDelete, OpenExisting, 0);
}

Core::Result<Interfaces::IFile> CreateFileForWriting(const char* path, uint32_t shareMode) {
    return impl::CreateFileResult(path, GenericWrite, shareMode, CreateAlways, 0);
}

Core::Result<Interfaces::IFile> CreateFileForStreaming(const char* path, uint32_t shareMode) {
    return impl::CreateFileResult(path, GenericWrite, shareMode, CreateAlways, FileFlagSequentialScan);
}

Core::Result<Interfaces::ISynchrounousFile> AsSynchronousFile(const Core::Result<Interfaces::IFile>& result) {
    Core::Result<Interfaces::ISynchrounousFile> converted;
    if (auto* file = dynamic_cast<Interfaces::ISynchrounousFile*>(result.value.Raw()))
        converted.value = Core::Ptr<Interfaces::ISynchrounousFile>(file);
    else
        converted.error = Core::MakeErrorCode(Core::ErrorCodeValue, "File could not be converted to Synchronous file.");
    return converted;
}

} // namespace Platform::Windows::IO
