#include "WinHttpErrors.h"

#include <algorithm>
#include <iterator>

namespace Platform::Windows::RichError {

namespace {

struct Entry {
    uint32_t code;
    const char* text;
};

// Sorted by number. The transport reports its failures under these numbers so that the HTTP
// client's logic and log levels stay the same on every transport.
constexpr Entry entries[] = {
    {12001, "No more handles could be generated at this time."},
    {12002, "The operation timed out."},
    {12004, "An internal error occurred in the HTTP transport."},
    {12005, "The URL is invalid."},
    {12006, "The URL does not use a recognized protocol."},
    {12007, "The server name or address could not be resolved."},
    {12008, "A requested protocol could not be located."},
    {12009, "An invalid option value was specified."},
    {12011, "The option value cannot be set."},
    {12012, "The HTTP transport is shutting down."},
    {12015, "The login attempt failed."},
    {12017, "The operation has been canceled."},
    {12018, "The type of handle supplied is incorrect for this operation."},
    {12019, "The handle supplied is not in the correct state."},
    {12029, "A connection with the server could not be established."},
    {12030, "The connection with the server was terminated abnormally."},
    {12032, "The request must be resent."},
    {12037, "The date in the certificate is invalid or has expired."},
    {12038, "The host name in the certificate is invalid or does not match."},
    {12044, "A certificate is required to complete client authentication."},
    {12045, "The certificate chain ends in a root certificate that is not trusted."},
    {12057, "Revocation information for the certificate is not available."},
    {12100, "This function cannot be called before the connection is opened."},
    {12101, "This function cannot be called after the request was sent."},
    {12102, "This function cannot be called before the response was received."},
    {12103, "This function cannot be called after a write was started."},
    {12150, "The requested header could not be located."},
    {12152, "The server returned an invalid or unrecognized response."},
    {12153, "The supplied header is invalid."},
    {12154, "The request made to query the header is invalid."},
    {12155, "The header already exists."},
    {12156, "The redirection failed: the scheme changed or too many redirects were followed."},
    {12157, "An error occurred in the secure channel support."},
    {12166, "An error occurred while running the proxy auto-configuration script."},
    {12167, "The proxy auto-configuration script could not be downloaded."},
    {12169, "The certificate is invalid."},
    {12170, "The certificate has been revoked."},
    {12172, "The HTTP transport has not been initialized."},
    {12175, "A security error occurred."},
    {12176, "The proxy auto-configuration service failed."},
    {12177, "The certificate is not valid for the requested usage."},
    {12178, "Proxy auto-detection failed."},
    {12180, "The proxy could not be detected automatically."},
    {12181, "The response has more headers than allowed."},
    {12182, "The response headers are larger than allowed."},
    {12183, "A chunk header of the response is larger than allowed."},
    {12184, "The response is larger than the maximum drain size."},
    {12185, "The client certificate has no private key."},
    {12186, "The private key of the client certificate cannot be accessed."},
};

} // namespace

const char* WinHttpErrorText(uint32_t code) noexcept {
    const auto it = std::lower_bound(std::begin(entries), std::end(entries), code,
                                     [](const Entry& e, uint32_t c) { return e.code < c; });
    return it != std::end(entries) && it->code == code ? it->text : nullptr;
}

} // namespace Platform::Windows::RichError
