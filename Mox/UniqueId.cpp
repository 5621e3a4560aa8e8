#include "Mox/UniqueId.h"

#include "Vel/base/System.h"
#include "Vel/describe/Module.h"

namespace Mox {

namespace {

U32 lastTimestamp = 0;
U16 counter = 0;

}  // namespace

void UniqueId::mint() {
    Vel::SystemCalls& calls = Vel::System::calls();
    auto const now = static_cast<U32>(calls.currentSeconds());
    if (now > lastTimestamp) {
        lastTimestamp = now;
        counter = 0;
    } else if (counter == 0xFFFFu) {
        ++lastTimestamp;  // ahead of the clock
        counter = 0;
    } else {
        ++counter;
    }
    timestamp_ = lastTimestamp;
    pid_ = static_cast<U16>(calls.getpid());
    count_ = counter;
}

String UniqueId::toStrep() const {
    return Vel::format("timestamp %u, pid %u, count %u", timestamp_, unsigned(pid_), unsigned(count_));
}

}  // namespace Mox

VEL_MODULE(UniqueId, 7b073ac0aefaab70, Mox::UniqueId);
