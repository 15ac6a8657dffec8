// The up/down state of one module's keys.
#include "tokenGuard.h"

namespace agent {

void TokenGuard::Lost(const std::string& reason)
{
    _up = false;
    if (!_told.exchange(true) && _lost) _lost(reason);
}

void TokenGuard::Back()
{
    _told = false;
    _up = true;
}

}  // namespace agent
