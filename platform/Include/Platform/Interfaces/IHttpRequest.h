#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>

#include "Core/ErrorCode.h"
#include "Data/Interfaces/IVariantDictionary.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Platform/Interfaces/IHttpHeaders.h"
#include "Platform/Interfaces/IStream.h"

namespace Platform::Interfaces {

struct IHttpRequest;

// A response held in memory: status, headers and the whole body.
struct IHttpResponse : Core::IObject {
    virtual int32_t GetStatusCode() = 0;
    // False, and no file, for an empty body.
    virtual bool SaveToFile(const char* path) = 0;
    virtual size_t GetBodySize() = 0;
    virtual const void* GetBodyData() = 0;
    // The value, or null when there is no such header.
    virtual const char* GetHeader(const char* name) = 0;
};

// Status and headers of a response, beside the source of its body.
struct IHttpResponseStream : Core::IObject {
    virtual int32_t GetStatusCode() = 0;
    virtual bool _abi_GetHeaders(Data::Interfaces::IVariantDictionary** ppHeaders, Core::IErrorCode** ppError) = 0;
    virtual bool HasHeader(const char* name) = 0;
    virtual const char* _abi_GetHeader(const char* name, Core::IErrorCode** ppError) = 0;
    // The body as a stream read straight from the connection; borrowed.
    virtual IAsyncStream* _abi_GetAsyncStream(Core::IErrorCode** ppError) = 0;
};

// Called with the request and its response, or a null response when the request closed first.
using HttpCompletionCallback = std::function<void(IHttpRequest* request, IHttpResponse* response)>;
// Kept only: nothing calls it.
using HttpErrorCallback = void (*)(IHttpRequest* request, uint32_t error);

// One exchange with the server, with a body held in memory.
struct IHttpRequest : Core::IObject {
    virtual bool AddHeaders(IHttpHeaders* headers) = 0;
    virtual void SetBody(const void* data, size_t size) = 0;
    virtual size_t GetBodySize() = 0;
    virtual const void* GetBodyData() = 0;
    virtual bool Send() = 0;
    virtual bool Close() = 0;
    virtual bool IsCompleted() = 0;
    virtual bool IsClosed() = 0;
    // Borrowed; lives as long as the request.
    virtual IHttpResponse* GetResponse(bool wait) = 0;
    virtual bool GetResponseAsync(IAsyncTask** ppTask) = 0;
    virtual void SetCompletionCallback(HttpCompletionCallback callback) = 0;
    virtual void SetErrorCallback(HttpErrorCallback callback) = 0;
    virtual void WaitForResponse() = 0;
    virtual void SetUserObject(Core::IObject* object) = 0;
    // Borrowed.
    virtual Core::IObject* GetUserObject() = 0;
};

struct IHttpRequest2 : IHttpRequest {
    // A task whose result is the IHttpResponseStream, as soon as the headers are there.
    virtual bool _abi_GetResponseStreamAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) = 0;
};

// A request whose body is read from a stream and sent block by block.
struct IHttpRequestStream : Core::IObject {
    virtual bool _abi_AddHeaders(IHttpHeaders* headers, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_SetBodyStream(IStream* stream, Core::IErrorCode** ppError) = 0;
    // The task ends with the IHttpResponseStream when the headers are there.
    virtual bool _abi_SendAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) = 0;
    virtual bool CloseRequest() = 0;
};

struct IHttpRequestStream2 : IHttpRequestStream {
    // The task ends with the whole IHttpResponse.
    virtual bool _abi_SendBufferedAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) = 0;
};

} // namespace Platform::Interfaces
