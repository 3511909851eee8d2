// STUN binding requests and their answers (RFC 8489), as bytes.
#pragma once

#include <array>
#include <cstddef>

inline constexpr std::size_t kStunHeaderBytes = 20;

using StunTransactionId = std::array<unsigned char, 12>;
using StunRequest = std::array<unsigned char, kStunHeaderBytes>;

// A binding request without attributes (section 5).
StunRequest BuildStunRequest(const StunTransactionId& id);

// Whether `data` is a well-formed answer to a binding request, a success or an error, and to
// which: its id goes to `*id`. Attributes are walked, not judged.
bool ParseStunAnswer(const unsigned char* data, std::size_t size, StunTransactionId* id);

// The size in bytes of the STUN message that begins with this header: 20 to 65,555 and a multiple
// of 4, or 0 when it begins none.
std::size_t StunMessageSize(const unsigned char* header);
