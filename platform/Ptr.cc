#include "platform/Ptr.h"

namespace platform {

std::atomic<bool> RefCounted::threadSafe_{ false };

} // namespace platform
