#pragma once
// The HTTP transport under the client: the WinHTTP operations the client uses, carried out by
// one libcurl multi handle on a dedicated transport thread. Events reach the status callback of
// a request on that thread. Failures set a per-thread last error with WinHTTP's numbers.
#include <cstddef>
#include <cstdint>

#include "BodyBuffer.h"

namespace Platform::Windows::Network::Http::Transport {

using Handle = void*;

inline Handle InvalidHandle() noexcept { return reinterpret_cast<Handle>(static_cast<intptr_t>(-1)); }
inline bool IsValidHandle(Handle handle) noexcept { return handle != nullptr && handle != InvalidHandle(); }

// Event numbers.
inline constexpr uint32_t StatusHandleClosing = 0x00000800;
inline constexpr uint32_t StatusHeadersAvailable = 0x00020000;
inline constexpr uint32_t StatusReadComplete = 0x00080000;
inline constexpr uint32_t StatusWriteComplete = 0x00100000;
inline constexpr uint32_t StatusRequestError = 0x00200000;
inline constexpr uint32_t StatusSendRequestComplete = 0x00400000;
inline constexpr uint32_t CallbackFlagAllNotifications = 0xFFFFFFFF;

// Access types of Open.
inline constexpr uint32_t AccessTypeDefaultProxy = 0;
inline constexpr uint32_t AccessTypeNoProxy = 1;
inline constexpr uint32_t AccessTypeNamedProxy = 3;
inline constexpr uint32_t FlagAsync = 0x10000000;

inline constexpr uint32_t FlagSecure = 0x00800000;
inline constexpr uint32_t AddRequestFlagAdd = 0x20000000;
inline constexpr uint32_t QueryRawHeadersCrlf = 22;

// Options.
inline constexpr uint32_t OptionClientCertContext = 47;
inline constexpr uint32_t OptionSecureProtocols = 84;
inline constexpr uint32_t OptionDecompression = 118;
inline constexpr uint32_t OptionEnableHttpProtocol = 133;
inline constexpr uint32_t OptionEncodeExtra = 138;
inline constexpr uint32_t SecureProtocolTls12 = 0x800;
inline constexpr uint32_t ProtocolFlagHttp2 = 1;
inline constexpr uint32_t DecompressionGzip = 1;
inline constexpr uint32_t DecompressionDeflate = 2;

// Error numbers.
inline constexpr uint32_t ErrorInvalidHandle = 6;
inline constexpr uint32_t ErrorNotEnoughMemory = 8;
inline constexpr uint32_t ErrorInvalidParameter = 87;
inline constexpr uint32_t ErrorInsufficientBuffer = 122;
inline constexpr uint32_t ErrorTimeout = 12002;
inline constexpr uint32_t ErrorInternalError = 12004;
inline constexpr uint32_t ErrorInvalidUrl = 12005;
inline constexpr uint32_t ErrorUnrecognizedScheme = 12006;
inline constexpr uint32_t ErrorNameNotResolved = 12007;
inline constexpr uint32_t ErrorInvalidOption = 12009;
inline constexpr uint32_t ErrorOperationCancelled = 12017;
inline constexpr uint32_t ErrorIncorrectHandleType = 12018;
inline constexpr uint32_t ErrorIncorrectHandleState = 12019;
inline constexpr uint32_t ErrorCannotConnect = 12029;
inline constexpr uint32_t ErrorConnectionError = 12030;
inline constexpr uint32_t ErrorHeaderNotFound = 12150;
inline constexpr uint32_t ErrorInvalidServerResponse = 12152;
inline constexpr uint32_t ErrorRedirectFailed = 12156;
inline constexpr uint32_t ErrorSecureFailure = 12175;
inline constexpr uint32_t ErrorHeaderSizeOverflow = 12182;

// The API whose asynchronous work failed, in the result of a request error.
inline constexpr uint32_t ApiReceiveResponse = 1;
inline constexpr uint32_t ApiReadData = 3;
inline constexpr uint32_t ApiWriteData = 4;
inline constexpr uint32_t ApiSendRequest = 5;

struct AsyncResult {
    uintptr_t api;
    uint32_t error;
};

using StatusCallback = void (*)(Handle handle, void* context, uint32_t status, void* info, uint32_t infoLength);

uint32_t GetLastError() noexcept;
void SetLastError(uint32_t error) noexcept;

Handle Open(const char* userAgent, uint32_t accessType, const char* proxyName, const char* proxyBypass,
            uint32_t flags);
bool SetTimeouts(Handle handle, int32_t resolveMs, int32_t connectMs, int32_t sendMs, int32_t receiveMs);
bool SetOption(Handle handle, uint32_t option, const void* value, uint32_t length);
// Installs the function for the session's requests opened from now on; null removes it.
StatusCallback SetStatusCallback(Handle session, StatusCallback callback, uint32_t flags);
Handle Connect(Handle session, const char* server, uint16_t port);
// `acceptTypes` is a null-terminated array of zero-terminated types, or null.
Handle OpenRequest(Handle connection, const char* verb, const char* path, const char* version,
                   const char* referrer, const char* const* acceptTypes, uint32_t flags);
// Header lines "Name: value" separated by CRLF; a length of -1 means zero-terminated.
bool AddRequestHeaders(Handle request, const char* headers, int64_t length, uint32_t flags);
bool SendRequest(Handle request, const char* headers, int64_t headersLength, const void* data, uint32_t length,
                 uint32_t totalLength, void* context);
bool WriteData(Handle request, const void* data, uint32_t length, uint32_t* written);
bool ReceiveResponse(Handle request, void* reserved);
// The raw response headers, CRLF-separated. Without a buffer (or too small a one) fails with
// ErrorInsufficientBuffer and reports the size needed, in bytes, terminator included.
bool QueryHeaders(Handle request, uint32_t infoLevel, const char* name, void* buffer, uint32_t* bufferLength,
                  uint32_t* index);
bool ReadData(Handle request, void* buffer, uint32_t toRead, uint32_t* read);
// ReadData for a buffered response into its own body: whatever the transport holds is added to
// `body`, committed, and taken over whole without a copy when `body` is empty; with nothing held
// the read waits in the room after the body (`room` bytes more when it has none) and its bytes
// are committed there as they arrive. The read-complete event names where the new bytes begin.
// `body` lives until that event or the handle's close.
bool ReadBody(Handle request, BodyBuffer& body, uint32_t room);
bool CloseHandle(Handle handle);

// Counters for tests: handles open, and easy handles alive in the multi handle.
size_t OpenHandleCount();

} // namespace Platform::Windows::Network::Http::Transport
