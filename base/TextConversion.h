// Between UTF-8 and wide strings, the way the hub's modules have always done it.
#pragma once

/// Converts a UTF-8 text. A bad sequence ends the result early; that is no error.
/// @param target gets the text and its terminator. Requires room for as many characters as @p source has bytes, and
/// one.
/// @param size the room of @p target in characters; it is not changed.
/// @return 0, or -1 when a pointer is null or *size is not greater than the length of @p source.
/// Threads: any.
int char2widechar(const char* source, wchar_t* target, int* size);

/// Converts a wide text to UTF-8. A surrogate or a value above 0x7FFFFFFF ends the result early, which is no error; one
/// above 0x10FFFF becomes a sequence of the old, longer form.
/// @param target gets the text and its terminator. Requires room for the result, which is at most six bytes for each
///        character of @p source, and one.
/// @param size the room of @p target in bytes; it is not changed. Requires that it is not null.
/// @return 0, or -1 when @p source or @p target is null, or *size is 0 or below six times the length plus one.
/// Threads: any.
int widechar2charstr(const wchar_t* source, char* target, int* size);
