#pragma once
#include <functional>
#include <string_view>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Platform/Interfaces/IHttpRequest.h"

namespace Platform::Network::Http {

// A response, or nothing when the exchange failed.
class HttpResponse {
public:
    HttpResponse() = default;
    explicit HttpResponse(Interfaces::IHttpResponse* response) : response_(response) {}

    bool IsValid() const { return response_.Raw() != nullptr; }
    explicit operator bool() const { return IsValid(); }
    Interfaces::IHttpResponse* Get() const { return response_.Raw(); }
    int32_t GetStatusCode() const { return response_->GetStatusCode(); }
    std::string_view GetBody() const {
        return {static_cast<const char*>(response_->GetBodyData()), response_->GetBodySize()};
    }

private:
    Core::Ptr<Interfaces::IHttpResponse> response_;
};

// Owning handle to a request.
class HttpRequest : public Core::Ptr<Interfaces::IHttpRequest> {
public:
    using Ptr::Ptr;
    HttpRequest() = default;
    HttpRequest(Core::Ptr<Interfaces::IHttpRequest> other) noexcept : Ptr(std::move(other)) {}

    using ResponseFunction = std::function<void(const HttpResponse&)>;

    // Carries the function of SendHttpRequestAsync as the request's user object.
    class HttpRequestData final : public Core::LightObjectImplBase<Core::IObject> {
    public:
        explicit HttpRequestData(ResponseFunction function) : function_(std::move(function)) {}
        const ResponseFunction& Function() const { return function_; }

    private:
        ResponseFunction function_;
    };

    // Sends the request; `function` gets the response, or an empty one when the request closed
    // first. It runs on a transport thread. False when the send was refused.
    bool SendHttpRequestAsync(ResponseFunction function) const;

    // After Close: waits up to `timeout` ms until the transport has let go of the request (it
    // holds a reference from the send until the handle has closed), so that dropping this handle
    // then frees it. True when it has, or never held it. Not from a transport thread, whose
    // events this waits for.
    bool WaitReleased(uint32_t timeout) const;
};

} // namespace Platform::Network::Http
