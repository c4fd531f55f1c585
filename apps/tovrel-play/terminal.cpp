#include "terminal.h"

#include <array>
#include <cstdlib>
#include <poll.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

constexpr char kEscape = '\x1b';
constexpr std::string_view kHideCursor = "\x1b[?25l";
constexpr std::string_view kShowCursor = "\x1b[?25h";
// A line that turns out wider than counted is cut, not wrapped.
constexpr const char* kNoWrap = "\x1b[?7l";
constexpr const char* kWrap = "\x1b[?7h";
constexpr const char* kEraseRest = "\x1b[J";

// Drops the text where the terminal does not take it now (it may be stopped, or its connection may
// hang): the program has to stay able to stop.
void WriteIfReady(std::string_view text)
{
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    while (!text.empty() && poll(&out, 1, 0) == 1 && (out.revents & POLLOUT))
    {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count <= 0)
            return;
        text.remove_prefix(static_cast<size_t>(count));
    }
}

bool IsDumb()
{
    const char* name = std::getenv("TERM");
    return !name || !*name || std::string_view(name) == "dumb";
}

} // namespace

bool IsForeground()
{
    const pid_t group = tcgetpgrp(STDOUT_FILENO);
    return group == -1 || group == getpgrp();
}

// ------------------------------------------------------------------------------------------------
// Keys

std::vector<Key> KeyParser::Parse(const char* bytes, size_t count)
{
    std::vector<Key> keys;
    const auto plain = [&](char c)
    {
        switch (c)
        {
        case ' ':
            return keys.push_back(Key::Pause);
        case '[':
            return keys.push_back(Key::PanLeft);
        case ']':
            return keys.push_back(Key::PanRight);
        case 'e':
            return keys.push_back(Key::Equalizer);
        case 'n':
            return keys.push_back(Key::Next);
        case 'p':
            return keys.push_back(Key::Previous);
        case 'q':
            return keys.push_back(Key::Quit);
        default:
            return;
        }
    };
    const auto arrow = [&](char c)
    {
        switch (c)
        {
        case 'A':
            return keys.push_back(Key::Louder);
        case 'B':
            return keys.push_back(Key::Softer);
        case 'C':
            return keys.push_back(Key::Forward);
        case 'D':
            return keys.push_back(Key::Back);
        default:
            return;
        }
    };

    for (const char c : std::string_view(bytes, count))
    {
        if (c == kEscape)
            m_state = State::Escape;
        else if (m_state == State::Escape)
        {
            // ESC O A is an arrow too, in the keypad's other mode.
            m_state = c == '[' || c == 'O' ? State::Sequence : State::Plain;
            m_bParameters = false;
        }
        else if (m_state == State::Plain)
            plain(c);
        else if (c >= '@' && c <= '~') // the end of the sequence
        {
            m_state = State::Plain;
            if (!m_bParameters)
                arrow(c);
        }
        else
            m_bParameters = true;
    }
    return keys;
}

void KeyParser::ForgetEscape()
{
    if (m_state == State::Escape)
        m_state = State::Plain;
}

// ------------------------------------------------------------------------------------------------
// Terminal

Terminal::Terminal(bool bUse, bool bKeys) : m_bTerminal(bUse && isatty(STDOUT_FILENO) && !IsDumb())
{
    m_bKeys = bKeys && m_bTerminal && tcgetattr(STDIN_FILENO, &m_settings) == 0;
}

void Terminal::Update()
{
    if (!m_bTerminal)
        return;
    const bool bForeground = IsForeground();
    if (bForeground == m_bActive)
        return;
    m_bActive = bForeground;
    if (!m_bActive)
        return;
    if (m_bKeys)
    {
        termios settings = m_settings;
        // Ctrl-C and Ctrl-Z stay signals. Ctrl-S would only stop the line.
        settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
        settings.c_cc[VMIN] = 0;
        settings.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    }
    WriteIfReady(kHideCursor);
    m_drawn.clear();
}

void Terminal::Retake()
{
    m_bActive = false;
    Update();
}

void Terminal::Leave()
{
    if (!m_bActive)
        return;
    KeepLine();
    WriteIfReady(kShowCursor);
    if (m_bKeys)
        tcsetattr(STDIN_FILENO, TCSANOW, &m_settings);
    m_bActive = false;
}

std::vector<Key> Terminal::ReadKeys()
{
    std::array<char, 64> bytes{};
    const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count > 0)
        return m_parser.Parse(bytes.data(), static_cast<size_t>(count));
    return {};
}

int Terminal::Columns() const
{
    constexpr int kUsualColumns = 80;
    winsize size{};
    const bool bKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    // The last column stays free: a cursor beyond it would have what is erased include it.
    return (bKnown ? size.ws_col : kUsualColumns) - 1;
}

void Terminal::Draw(const std::string& line)
{
    if (!m_bActive || line == m_drawn)
        return;
    m_drawn = line;
    // The cursor rests at the start of the line. So it still stands at the start when a terminal
    // that has become narrower wraps the line, and all of it is erased.
    WriteIfReady(kNoWrap + line + kEraseRest + kWrap + "\r");
}

void Terminal::KeepLine()
{
    if (m_bActive && !m_drawn.empty())
        WriteIfReady("\r\n");
    m_drawn.clear();
}

void Terminal::ClearLine()
{
    if (m_bActive)
        WriteIfReady(kEraseRest);
    m_drawn.clear();
}
