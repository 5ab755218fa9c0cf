// A payload out of the fuzzer's bytes, and the property that holds for each: what was read can be written, and what was
// written reads back as the same.
#pragma once

#include "fuzz/Require.h"
#include "hub/HVBMessages.h"

#include <cstdint>
#include <optional>
#include <string>

namespace fuzz {

/// One byte a character: this reaches every character that a narrow text has in an archive.
inline std::wstring textOf(const std::uint8_t* data, std::size_t size) {
    return {data, data + size};
}

/// The value in @p text; none when the archive refuses it.
template <class Payload>
std::optional<Payload> read(const std::wstring& text) {
    Payload payload;
    try {
        const auto stream = HVB::makeInStream(text);
        *HVB::makeInArchive(*stream) >> payload;
    } catch (const boost::archive::archive_exception&) {
        return std::nullopt;
    }
    return payload;
}

template <class Payload>
std::wstring written(const Payload& payload) {
    HVB::CommandResult carrier;
    carrier.writePayload(payload);
    return carrier.m_pOutStream->str();
}

/// As read, and requires the property.
template <class Payload>
std::optional<Payload> readAndRewrite(const std::uint8_t* data, std::size_t size) {
    std::optional<Payload> payload = read<Payload>(textOf(data, size));
    if (payload) {
        const std::wstring text = written(*payload);
        const std::optional<Payload> again = read<Payload>(text);
        require(again && written(*again) == text);
    }
    return payload;
}

} // namespace fuzz
