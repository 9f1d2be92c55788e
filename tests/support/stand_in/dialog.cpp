// The request for the PIN.

#include "dialog.h"

#include <mutex>
#include <utility>

namespace NV {

namespace stand_in {

namespace {

std::mutex lock;

PinAnswer& currentAnswer()
{
    static PinAnswer answer;
    return answer;
}

}  // namespace

PinAnswer setPinAnswer(PinAnswer answer)
{
    const std::lock_guard guard(lock);
    return std::exchange(currentAnswer(), std::move(answer));
}

}  // namespace stand_in

SecretBytes requestPIN(const PINRequest* request)
{
    stand_in::PinAnswer answer;
    {
        const std::lock_guard guard(stand_in::lock);
        answer = stand_in::currentAnswer();
    }
    SecretBytes pin = answer ? answer(request) : SecretBytes();
    // The dialog asks for what it shows when it is made. Here, one that gives no PIN was not made.
    if (!pin.empty() && request != nullptr && request->readSubject)
        request->readSubject();
    return pin;
}

}  // namespace NV
