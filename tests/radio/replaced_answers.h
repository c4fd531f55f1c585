// Answers that FFmpeg gives to the engine, replaced by the tests' own.
#pragma once

#include "wrapped_calls.h"

// While it lives, one conversion, after `skip` others, is not done and answers `code`.
class ConversionAnswer : public FailingCall
{
public:
    ConversionAnswer(int code, int skip) : FailingCall("swr_convert", code, skip) {}
};

// While it lives, no error has a text.
class NoErrorTexts
{
public:
    NoErrorTexts();
    ~NoErrorTexts();
    NoErrorTexts(const NoErrorTexts&) = delete;
    NoErrorTexts& operator=(const NoErrorTexts&) = delete;
};
