// Answers that FFmpeg gives to the engine, replaced by the tests' own.
#pragma once

// While it lives, one conversion, after `skip` others, is not done and answers `code`.
class ConversionAnswer
{
public:
    explicit ConversionAnswer(int code, int skip);
    ~ConversionAnswer();
    ConversionAnswer(const ConversionAnswer&) = delete;
    ConversionAnswer& operator=(const ConversionAnswer&) = delete;

    // Whether the conversion came.
    bool Happened() const;
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
