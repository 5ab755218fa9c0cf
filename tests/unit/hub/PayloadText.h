// Payloads on their way over the hub: into a carrier's archive, and out of a delivered one.
#pragma once

#include "hub/HVBMessages.h"
#include "tests/support/ArchiveValue.h"
#include "tests/unit/events/AllocationMeter.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

inline const std::wstring kHeader = testing_support::archiveHeader();

template <class T>
std::wstring payloadOf(const T& value) {
    HVB::CommandResult sent;
    sent.writePayload(value);
    return sent.m_pOutStream->str();
}

template <class T>
T payloadIn(const std::wstring& text) {
    HVB::CommandResult delivered;
    testing_support::deliverText(delivered, text);
    T value{};
    delivered.readPayload(value);
    return value;
}

/// Every byte value once.
inline std::string everyByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

/// The archive's code for refusing @p text; -1 when it was accepted.
template <class T>
int refusalOf(const std::wstring& text) {
    try {
        payloadIn<T>(text);
    } catch (const boost::archive::archive_exception& exception) {
        return exception.code;
    }
    return -1;
}

inline constexpr std::size_t kModestBytes = std::size_t{64} << 10;

/// As refusalOf; expects that no single request for memory was larger than the text calls for.
template <class T>
int cheapRefusalOf(const std::wstring& text) {
    int refusal = 0;
    std::size_t greatest = 0;
    {
        const testing_support::AllocationMeter meter;
        refusal = refusalOf<T>(text);
        greatest = meter.greatest();
    }
    EXPECT_LT(greatest, kModestBytes + text.size() * sizeof(wchar_t));
    return refusal;
}

/// Expects that @p body behind a true header is refused as a text that is no such archive, and cheaply.
template <class T>
void expectRefusedCheaply(const std::wstring& body) {
    EXPECT_EQ(cheapRefusalOf<T>(kHeader + body), boost::archive::archive_exception::input_stream_error)
        << testing::PrintToString(body.substr(0, 60));
}

/// Expects that no beginning of @p text is taken for the whole. Requires that its last word has one character.
template <class T>
void expectEveryBeginningRefused(const std::wstring& text) {
    payloadIn<T>(text);
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_NE(refusalOf<T>(text.substr(0, length)), -1) << length;
    }
}

/// @p text with @p with where @p what is. Requires that it is there.
inline std::wstring replaced(std::wstring text, const std::wstring& what, const std::wstring& with) {
    return text.replace(text.find(what), what.size(), with);
}

/// Characters of an archive in no order that means anything, the same ones each time.
inline std::wstring noise(std::size_t size) {
    constexpr std::wstring_view alphabet = L"0123456789 -\x80\xFF:a\n";
    std::wstring text;
    unsigned int state = 1;
    while (text.size() < size) {
        state = state * 1103515245U + 12345U;
        text += alphabet[(state >> 16U) % alphabet.size()];
    }
    return text;
}

/// Expects that noise is refused, alone and behind a true header, and that it costs no more than its own size.
template <class T>
void expectNoiseRefused() {
    constexpr std::size_t mebibyte = std::size_t{1} << 20;
    EXPECT_EQ(refusalOf<T>(noise(mebibyte)), boost::archive::archive_exception::invalid_signature);
    EXPECT_NE(cheapRefusalOf<T>(kHeader + L" " + noise(mebibyte)), -1);
    EXPECT_EQ(cheapRefusalOf<T>(kHeader + L" 0 0 x" + noise(mebibyte)),
              boost::archive::archive_exception::input_stream_error);
}
