#include "platform/EntityMacros.h"

namespace platform {

template class ScalarOf<bool>;
template class ScalarOf<std::int8_t>;
template class ScalarOf<std::uint8_t>;
template class ScalarOf<std::uint16_t>;
template class ScalarOf<std::uint32_t>;
template class ScalarOf<std::uint64_t>;
template class ScalarOf<std::string>;
template class ScalarOf<Seconds>;
template class ScalarOf<IntfId>;
template class ScalarOf<IpGenAddr>;
template class ScalarOf<EthAddr>;

} // namespace platform
