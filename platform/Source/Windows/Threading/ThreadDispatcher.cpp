#include "Platform/Threading/ThreadDispatcher.h"

#include <stdexcept>

#include "Threading/ThreadContext.h"
#include "Threading/ThreadPost.h"

namespace Platform::Threading::impl {

namespace {

[[noreturn]] void ThrowConsumed() {
    throw std::runtime_error(
        "This thread was consumed. Thread start/stop functions work only on created and owned threads.");
}

} // namespace

ThreadDispatcher::ThreadDispatcher() : m_ThreadHandle(ThreadContext::Current()) {}

ThreadDispatcher::~ThreadDispatcher() = default;

AsyncTask ThreadDispatcher::PostBody(std::function<Data::Variant()> body) {
    return details::PostTask(*this, m_ThreadHandle.get(), std::move(body), "ThreadDispatcher", m_ThreadId);
}

bool ThreadDispatcher::IsRunning() { return m_ThreadHandle && m_ThreadHandle->ThreadId() != 0; }

bool ThreadDispatcher::_abi_Start(Core::IErrorCode** ppError) {
    return Core::AbiGuard([] { ThrowConsumed(); }, ppError);
}

bool ThreadDispatcher::_abi_Stop(Interfaces::IAsyncTask**, Core::IErrorCode** ppError) {
    return Core::AbiGuard([] { ThrowConsumed(); }, ppError);
}

bool ThreadDispatcher::_abi_Post(Interfaces::ThreadFunction function, const Data::Structures::VARIANT* param,
                                 Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return details::AbiPost(
        *this, function, param, ppTask, ppError,
        "Platform::Threading::impl::ThreadDispatcher::_abi_Post::<lambda_1>::()::<lambda_1>::operator ()");
}

bool ThreadDispatcher::_abi_Unsupported(Core::IErrorCode** ppError) {
    return Core::AbiGuard([] { details::ThrowNotImplemented(); }, ppError);
}

bool ThreadDispatcher::_abi_SetName(const char* name, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            if (name) m_ThreadHandle->SetName(name);
        },
        ppError);
}

bool ThreadDispatcher::_abi_SetTimeout(uint32_t, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [] {
            throw std::runtime_error("This thread was consumed. Thread timeout functions work only on created and "
                                     "owned threads.");
        },
        ppError);
}

} // namespace Platform::Threading::impl
