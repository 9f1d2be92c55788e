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
    return answer ? answer(request) : SecretBytes();
}

}  // namespace NV
