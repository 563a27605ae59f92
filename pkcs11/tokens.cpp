#include "pkcs11/tokens.h"

namespace mervane {

TokenInfo::TokenInfo() noexcept = default;
TokenInfo::TokenInfo(const TokenInfo& other) = default;
TokenInfo::TokenInfo(TokenInfo&& other) noexcept = default;
TokenInfo& TokenInfo::operator=(const TokenInfo& other) = default;
TokenInfo& TokenInfo::operator=(TokenInfo&& other) noexcept = default;
TokenInfo::~TokenInfo() = default;

}  // namespace mervane
