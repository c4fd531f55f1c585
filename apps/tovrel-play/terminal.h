// The terminal while a file plays: one line that is redrawn in place, and keys without Enter.
#pragma once

#include <string>
#include <termios.h>
#include <vector>

// Whether the terminal is this program's at the moment. Without job control it always is.
bool IsForeground();

enum class Key
{
    Pause,
    Back,
    Forward,
    Louder,
    Softer,
    PanLeft,
    PanRight,
    Equalizer,
    Next,
    Previous,
    Quit,
};

// Turns bytes into keys. A key may arrive in more than one piece.
class KeyParser
{
public:
    std::vector<Key> Parse(const char* bytes, size_t count);

    // An Escape that nothing has followed was a key of its own.
    void ForgetEscape();

private:
    enum class State
    {
        Plain,
        Escape,
        Sequence,
    };
    State m_state = State::Plain;
    bool m_bParameters = false; // of the sequence: it is no plain arrow then
};

// Owns the terminal's settings, from Update on, whenever the program is in the foreground, and puts
// them back in Leave and on destruction. Does nothing at all where standard output is no terminal.
class Terminal
{
public:
    // `bUse`: whether it is to be drawn on at all.
    Terminal(bool bUse, bool bKeys);
    ~Terminal() { Leave(); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Takes the terminal where the program is in its foreground, leaves it alone where it is not
    // (any more). To be called often.
    void Update();
    void Leave();

    // After a stop from outside, during which the shell has changed the settings.
    void Retake();

    // True while the line can be drawn.
    bool IsActive() const { return m_bActive; }

    // To be polled for reading; -1 while there are no keys.
    int KeyDescriptor() const { return m_bActive && m_bKeys && !m_bKeysLost ? 0 : -1; }
    std::vector<Key> ReadKeys();
    void LoseKeys() { m_bKeysLost = true; } // the connection is gone
    void ForgetEscape() { m_parser.ForgetEscape(); }

    int Columns() const; // that the line may fill
    void Draw(const std::string& line);
    void KeepLine(); // what is drawn stays, and what comes next stands below it
    void ClearLine();

private:
    bool m_bTerminal = false;
    bool m_bKeys = false;
    bool m_bKeysLost = false;
    bool m_bActive = false;
    termios m_settings{}; // as they were found
    KeyParser m_parser;
    std::string m_drawn;
};
