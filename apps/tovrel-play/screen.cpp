#include "screen.h"

#include "terminal.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

#include <curses.h>
#include <term.h>

// They would stand in the way of what is called so here.
#undef lines
#undef columns

namespace
{

constexpr double kGainStepDb = 1.0;

constexpr int kHeaderRows = 5; // the program, the title, whose it is, the position, the controls
constexpr int kFewestPanelRows = 4;
constexpr int kFewestSpectrumRows = 3;
constexpr int kScaleColumns = 4;
constexpr int kBandColumns = 3; // with the gap
constexpr int kMeterColumns = 8;
constexpr int kSliderColumns = 5;
constexpr int kBarRow = 3;
constexpr int kLeastColumns = 30;
constexpr int kEscape = 27;
constexpr int kEscapeDelayMs = 25;

// ---- Colours

enum class Colour
{
    Plain,
    Dim,
    Accent,
    Error,
    Low, // of a level, up to full scale
    Middle,
    High,
    Count,
};

struct Rgb
{
    int red, green, blue; // 0 to 255
    short basic;          // of the eight
};

constexpr Rgb kColours[] = {
    {0, 0, 0, -1},                // the terminal's own
    {138, 138, 138, -1},          // dim
    {95, 175, 255, COLOR_CYAN},   // accent
    {255, 95, 95, COLOR_RED},     // error
    {95, 215, 95, COLOR_GREEN},   // low
    {255, 215, 95, COLOR_YELLOW}, // middle
    {255, 95, 95, COLOR_RED},     // high
};
static_assert(std::size(kColours) == static_cast<size_t>(Colour::Count));

// The colour's number where there are as many as these, -1 for the terminal's own.
int ColourNumber(const Rgb& colour)
{
    constexpr int kDirect = 1 << 24;
    if (colour.basic < 0 && colour.red == 0)
        return -1;
    if (COLORS >= kDirect)
        return colour.red << 16 | colour.green << 8 | colour.blue;
    if (COLORS < 256)
        return colour.basic;
    // The cube of six levels each that follows the sixteen old ones.
    const auto level = [](int value)
    {
        return value < 48 ? 0 : value < 115 ? 1 : (value - 35) / 40;
    };
    return 16 + 36 * level(colour.red) + 6 * level(colour.green) + level(colour.blue);
}

// ---- Drawing

struct Glyphs
{
    const char* line;
    const char* played;
    const char* knob;
    const char* rest;
    const char* filled;
    const char* peak;
    const char* recording;
    const char* separator;
    std::array<const char*, 9> eighths; // of a cell, from below
};

constexpr Glyphs kUtf8 = {
    "─", "━", "●", "─", "█", "▔", "●", " · ", {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"}};
constexpr Glyphs kAscii = {
    "-", "=", "O", "-", "#", "-", "*", " - ", {" ", " ", ".", ".", ":", ":", "|", "|", "#"}};

std::string Repeated(const char* glyph, int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += glyph;
    return text;
}

// Whether colours are used; has_colors tells only that there could be some.
bool HasColours()
{
    return COLOR_PAIRS > 0;
}

// From `column` on; what goes beyond the right edge is cut.
void Put(int row, int column, const std::string& text, Colour colour = Colour::Plain,
         attr_t attributes = A_NORMAL)
{
    if (row < 0 || row >= LINES || column < 0 || column >= COLS)
        return;
    std::string fitting = text;
    if (Columns(text) > COLS - column)
        fitting = Fitted(text, COLS - column);
    // Where there are no colours an error stands out all the same; few colours have no grey.
    if (!HasColours() && colour == Colour::Error)
        attributes |= A_BOLD;
    if (colour == Colour::Dim && (!HasColours() || COLORS < 256))
        attributes |= A_DIM;
    const int pair = HasColours() ? static_cast<int>(colour) : 0;
    attr_set(attributes, 0, const_cast<int*>(&pair));
    mvaddstr(row, column, fitting.c_str());
    attr_set(A_NORMAL, 0, nullptr);
}

Colour LevelColour(float dB)
{
    return dB > -6.0f ? Colour::High : dB > -18.0f ? Colour::Middle : Colour::Low;
}

// A level as a column of cells: `row` counts from below.
const char* LevelCell(const Glyphs& glyphs, const Ballistics& level, int row, int rows)
{
    const auto eighths = [=](float dB)
    {
        return static_cast<int>(
            std::lround((dB / -Ballistics::kFloorDb + 1.0f) * static_cast<float>(rows) * 8.0f));
    };
    const int filled = std::clamp(eighths(level.LevelDb()) - row * 8, 0, 8);
    const int peak = std::min(eighths(level.PeakDb()), rows * 8) - row * 8;
    if (filled == 0 && peak > 0 && peak <= 8)
        return glyphs.peak;
    return glyphs.eighths[static_cast<size_t>(filled)];
}

std::string FrequencyText(double hertz)
{
    if (hertz < 999.5)
        return std::to_string(std::lround(hertz));
    const auto tenths = std::lround(hertz / 100.0); // of a kilohertz
    const bool bWhole = tenths % 10 == 0 || tenths >= 100;
    return std::to_string(tenths / 10) + (bWhole ? "" : "." + std::to_string(tenths % 10)) + "k";
}

std::string GainText(double dB)
{
    std::array<char, 16> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%+.0f", dB == 0.0 ? 0.0 : dB);
    return dB == 0.0 ? "0" : buffer.data();
}

// A picture of dots, two by four to a cell where there is Braille, one to a cell where there is
// not.
class Dots
{
public:
    Dots(int columns, int rows, bool bUtf8) :
        m_columns(columns), m_rows(rows), m_across(bUtf8 ? 2 : 1), m_down(bUtf8 ? 4 : 1),
        m_cells(static_cast<size_t>(columns) * static_cast<size_t>(rows))
    {
    }

    int Width() const { return m_columns * m_across; }
    int Height() const { return m_rows * m_down; }

    void Set(int x, int y)
    {
        constexpr unsigned kBits[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
        m_cells[static_cast<size_t>(y / m_down * m_columns + x / m_across)] |=
            kBits[y % m_down][x % m_across];
    }

    // Empty where no dot is set.
    std::string Cell(int column, int row) const
    {
        const unsigned bits = m_cells[static_cast<size_t>(row * m_columns + column)];
        if (bits == 0)
            return "";
        if (m_across == 1)
            return "*";
        const unsigned code = 0x2800 + bits; // Braille patterns
        return {static_cast<char>(0xE0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3F)),
                static_cast<char>(0x80 | (code & 0x3F))};
    }

private:
    int m_columns;
    int m_rows;
    int m_across;
    int m_down;
    std::vector<unsigned> m_cells;
};

// ---- Where things are

// The columns of the bar of the position, between the two times.
struct Span
{
    int begin = 0;
    int count = 0;
};

std::pair<std::string, std::string> Times(const Status& status)
{
    const LiveState& live = status.live;
    const bool bHours = std::max(live.position, live.duration) >= 3600.0;
    return {ClockText(live.position, bHours),
            status.bStream ? "live" : ClockText(live.duration, bHours)};
}

Span PositionBar(const Status& status)
{
    const auto [position, duration] = Times(status);
    const int begin = Columns(position) + 2;
    return {begin, std::max(COLS - begin - Columns(duration) - 2, 0)};
}

// What a terminal of this name can do, before anything is written to it.
bool PlacesItsCursor(const char* name)
{
    int error = 0;
    if (setupterm(name, STDOUT_FILENO, &error) != OK)
        return false;
    const char* cup = tigetstr("cup");
    const bool bPlaces = cup && cup != reinterpret_cast<const char*>(-1);
    del_curterm(cur_term);
    return bPlaces;
}

} // namespace

// What ncurses has been given, and what it had been before.
struct Screen::Terminal
{
    SCREEN* screen = nullptr;
    FILE* keys = nullptr; // the terminal's, where standard input is something else
    FILE* output = nullptr;

    Terminal()
    {
        const char* name = std::getenv("TERM");
        if (!isatty(STDOUT_FILENO) || !name || !IsForeground())
            return;
        keys = isatty(STDIN_FILENO) ? fdopen(dup(STDIN_FILENO), "r") : fopen("/dev/tty", "re");
        output = fdopen(dup(STDOUT_FILENO), "w");
        if (!keys || !output)
            return;
        if (!PlacesItsCursor(name))
            return;
        const std::string direct =
            std::string(name).substr(0, std::string(name).find('-')) + "-direct";
        const char* colours = std::getenv("COLORTERM");
        const bool bTrueColour = colours && (std::string_view(colours) == "truecolor" ||
                                             std::string_view(colours) == "24bit");
        // The program takes this signal itself. ncurses leaves it alone where it finds a handler;
        // else it ignores it while it draws, and one that waits to be read is lost.
        std::signal(SIGTSTP, [](int) {});
        if (bTrueColour)
            screen = newterm(direct.c_str(), output, keys);
        if (!screen)
            screen = newterm(name, output, keys);
        std::signal(SIGTSTP, SIG_DFL);
    }
    ~Terminal()
    {
        if (screen)
            delscreen(screen); // after Leave
        if (keys)
            fclose(keys);
        if (output)
            fclose(output);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
};

std::unique_ptr<Screen> Screen::Open(Control& control, bool bUtf8)
{
    auto terminal = std::make_unique<Terminal>();
    if (!terminal->screen)
        return nullptr;
    return std::unique_ptr<Screen>(new Screen(control, bUtf8, std::move(terminal)));
}

Screen::Screen(Control& control, bool bUtf8, std::unique_ptr<Terminal> terminal) :
    m_control(control), m_bUtf8(bUtf8), m_terminal(std::move(terminal))
{
    set_escdelay(kEscapeDelayMs);
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    mouseinterval(0);
    // All of them: getch does not return before one that is wanted has come.
    mousemask(ALL_MOUSE_EVENTS, nullptr);
    // Ctrl-S would only freeze the picture.
    termios settings{};
    if (tcgetattr(fileno(m_terminal->keys), &settings) == 0)
    {
        settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
        tcsetattr(fileno(m_terminal->keys), TCSANOW, &settings);
        def_prog_mode();
    }
    const char* noColour = std::getenv("NO_COLOR");
    if ((!noColour || !*noColour) && start_color() == OK)
    {
        use_default_colors();
        for (size_t i = 1; i < std::size(kColours); ++i)
            init_extended_pair(static_cast<int>(i), ColourNumber(kColours[i]), -1);
    }
}

Screen::~Screen()
{
    Leave();
}

int Screen::KeyDescriptor() const
{
    return m_bKeys && !m_bLeft && IsForeground() ? fileno(m_terminal->keys) : -1;
}

void Screen::Leave()
{
    // From the background the settings of the terminal are the shell's, and to touch them stops us.
    if (!isendwin() && IsForeground())
        endwin();
    m_bLeft = true;
}

void Screen::Retake()
{
    m_bLeft = true;
}

Screen::Layout Screen::Measure() const
{
    Layout layout;
    layout.rows = LINES;
    layout.columns = COLS;
    // Below the header: a heading, the spectrum, its frequencies; a heading, the panel; the message
    // and the keys. The spectrum gives way first.
    int rest = LINES - kHeaderRows;
    if (rest >= 2)
    {
        layout.bMessage = true;
        rest -= 2;
    }
    const int spectrum = rest - (2 + 1 + kFewestPanelRows);
    if (spectrum >= kFewestSpectrumRows && SpectrumBands() > 0)
    {
        // Beyond what the panel needs, half of the room.
        constexpr int kUsualPanelRows = 8;
        layout.spectrumRows =
            std::max(kFewestSpectrumRows, std::min(spectrum, (rest - kUsualPanelRows) * 2 / 3));
        layout.spectrumTop = kHeaderRows + 1;
        rest -= layout.spectrumRows + 2;
    }
    if (rest >= 2)
    {
        layout.panelTop = LINES - rest - (layout.bMessage ? 2 : 0) + 1;
        layout.panelRows = rest - 1;
    }
    return layout;
}

size_t Screen::SpectrumBands() const
{
    const int bands = (COLS - kScaleColumns - kMeterColumns) / kBandColumns;
    return bands >= 6 ? static_cast<size_t>(bands) : 0;
}

void Screen::Draw(const Status& status, const Queue& queue, const Meters& meters)
{
    pollfd out{STDOUT_FILENO, POLLOUT, 0};
    if (!IsForeground() || poll(&out, 1, 0) != 1 || !(out.revents & POLLOUT))
        return;
    if (std::exchange(m_bLeft, false))
    {
        // Whatever has been done to the terminal, all that it takes is done again.
        if (!isendwin())
            endwin();
        reset_prog_mode();
        clearok(stdscr, TRUE);
    }
    if (m_current != queue.Current() && queue.Current() != Queue::kNone)
        m_selected = queue.Current(); // the selection goes along
    m_current = queue.Current();
    if (!m_bPanelChosen)
        m_panel = status.bStream ? Panel::Radio : Panel::Queue;

    erase();
    const Layout layout = Measure();
    DrawHeader(status, queue);
    DrawSound(status);
    if (layout.spectrumRows > 0)
        DrawSpectrum(layout, meters);
    if (layout.panelRows > 0)
        DrawPanel(layout, status, queue);
    if (layout.bMessage)
        DrawMessage(layout, status);
    if (m_bHelp)
        DrawHelp(layout);
    refresh();
}

void Screen::DrawHeader(const Status& status, const Queue& queue)
{
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    const auto shown = [this](const std::string& text)
    {
        return m_bUtf8 ? text : Ascii(text);
    };
    std::string right;
    const auto add = [&](const std::string& text)
    {
        right += (right.empty() ? "" : glyphs.separator) + text;
    };
    if (status.bRecording)
        add(std::string(glyphs.recording) + " recording" +
            (status.droppedBlocks ? ", " + std::to_string(status.droppedBlocks) + " lost" : ""));
    if (queue.IsShuffled())
        add("shuffle");
    if (queue.Repeats() != Repeat::Off)
        add(queue.Repeats() == Repeat::One ? "repeat one" : "repeat all");
    if (queue.Current() != Queue::kNone)
        add(std::to_string(queue.Current() + 1) + "/" + std::to_string(queue.Entries().size()));
    Put(0, 1, "Tovrel", Colour::Accent, A_BOLD);
    Put(0, std::max(COLS - Columns(right) - 1, 8), right, Colour::Dim);

    const LiveState& live = status.live;
    const bool bSong = !status.title.empty() && !status.bStream;
    Put(1, 1, Fitted(shown(bSong ? status.title : live.title), std::max(COLS - 2, 0)),
        Colour::Plain, A_BOLD);
    std::string below;
    const auto part = [&](const std::string& text)
    {
        if (!text.empty())
            below += (below.empty() ? "" : glyphs.separator) + shown(Printable(text));
    };
    if (status.bStream)
    {
        part(status.stream.IcyGenre);
        part(status.stream.Codec);
        if (status.stream.BitRate > 0)
            part(std::to_string(status.stream.BitRate / 1000) + " kb/s");
    }
    else
    {
        part(status.artist);
        part(status.album);
    }
    Put(2, 1, below, Colour::Dim);

    const auto [position, duration] = Times(status);
    const Span bar = PositionBar(status);
    Put(kBarRow, 1, position);
    const double fraction = live.duration > 0.0 && !live.bEndless
                                ? std::clamp(live.position / live.duration, 0.0, 1.0)
                                : 0.0;
    if (bar.count > 0)
    {
        const int knob = static_cast<int>(std::lround(fraction * (bar.count - 1)));
        Put(kBarRow, bar.begin, Repeated(glyphs.played, knob), Colour::Accent);
        Put(kBarRow, bar.begin + knob, live.bEndless ? glyphs.rest : glyphs.knob, Colour::Accent,
            A_BOLD);
        Put(kBarRow, bar.begin + knob + 1, Repeated(glyphs.rest, bar.count - knob - 1),
            Colour::Dim);
    }
    Put(kBarRow, std::max(COLS - Columns(duration) - 1, 0), duration);
}

void Screen::DrawSound(const Status& status)
{
    constexpr int kStateColumns = 20;
    constexpr int kVolumeCells = 15;
    constexpr int kColumnsForAll = 68;
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    const LiveState& live = status.live;
    const int row = kBarRow + 1;
    const bool bAll = COLS >= kColumnsForAll;
    Put(row, 1, Fitted(live.state, std::clamp(COLS - 2, 0, kStateColumns)), Colour::Accent, A_BOLD);
    int column = bAll ? kStateColumns + 2 : Columns(live.state) + 3;
    // What does not fit is left out.
    const auto field = [&](const std::string& text, int columns, Colour colour)
    {
        if (column + Columns(text) < COLS)
            Put(row, column, text, colour);
        column += columns;
    };
    if (bAll)
    {
        const auto cells = static_cast<int>(std::lround(live.volume / kMaxVolume * kVolumeCells));
        field("vol", 4, Colour::Plain);
        field(Repeated(glyphs.filled, cells), cells,
              live.volume > 1.0 ? Colour::Middle : Colour::Low);
        field(Repeated(glyphs.rest, kVolumeCells - cells), kVolumeCells - cells + 1, Colour::Dim);
    }
    const std::string volume = std::to_string(std::lround(live.volume * 100.0)) + "%";
    field(bAll ? volume : "vol " + volume, bAll ? 6 : 10, Colour::Plain);
    const std::string pan = PanText(live.pan);
    field(pan.empty() ? "pan C" : pan, 10, pan.empty() ? Colour::Dim : Colour::Plain);
    std::string equalizer = live.bFlat ? "eq flat" : "eq on";
    for (const Preset& preset : status.presets)
        if (!live.bFlat && preset.gainsDb == status.gainsDb)
            equalizer = "eq " + (m_bUtf8 ? preset.name : Ascii(preset.name));
    field(live.bEqualizer ? equalizer : "eq off", 0,
          live.bEqualizer && !live.bFlat ? Colour::Plain : Colour::Dim);
}

void Screen::DrawSpectrum(const Layout& layout, const Meters& meters)
{
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    const int rows = layout.spectrumRows;
    Put(layout.spectrumTop - 1, 0, Repeated(glyphs.line, COLS), Colour::Dim);
    Put(layout.spectrumTop - 1, 2, " Spectrum, dB ");
    const int meterColumn = COLS - kMeterColumns + 2;
    Put(layout.spectrumTop - 1, meterColumn - 1, " L  R ");
    const auto& bands = meters.Bands();
    const size_t shown = std::min(bands.size(), SpectrumBands());
    for (int row = 0; row < rows; ++row)
    {
        const int y = layout.spectrumTop + rows - 1 - row;
        const float topDb =
            Ballistics::kFloorDb * (1.0f - static_cast<float>(row + 1) / static_cast<float>(rows));
        std::array<char, 16> scale{};
        std::snprintf(scale.data(), scale.size(), "%3.0f", std::fabs(topDb) < 0.5f ? 0.0f : topDb);
        Put(y, 0, scale.data(), Colour::Dim);
        const Colour colour = LevelColour(topDb - 0.1f);
        std::string cells;
        for (size_t band = 0; band < shown; ++band)
        {
            const char* cell = LevelCell(glyphs, bands[band], row, rows);
            cells.append(cell).append(cell).append(" ");
        }
        Put(y, kScaleColumns, cells, colour);
        Put(y, meterColumn, Repeated(LevelCell(glyphs, meters.Left(), row, rows), 2), colour);
        Put(y, meterColumn + 3, Repeated(LevelCell(glyphs, meters.Right(), row, rows), 2), colour);
    }
    // The frequencies of every third band, in its middle.
    const int y = layout.spectrumTop + rows;
    for (size_t band = 0; band < SpectrumBands(); band += 3)
        Put(y, kScaleColumns + static_cast<int>(band) * kBandColumns,
            FrequencyText(std::sqrt(Spectrum::EdgeHz(band, SpectrumBands()) *
                                    Spectrum::EdgeHz(band + 1, SpectrumBands()))),
            Colour::Dim);
}

void Screen::DrawPanel(const Layout& layout, const Status& status, const Queue& queue)
{
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    const int heading = layout.panelTop - 1;
    Put(heading, 0, Repeated(glyphs.line, COLS), Colour::Dim);
    int column = 2;
    for (const auto& [panel, name] : {std::pair(Panel::Queue, "Queue"),
                                      {Panel::Equalizer, "Equalizer"},
                                      {Panel::Radio, "Radio"}})
    {
        const std::string text = std::string(" ") + name + " ";
        Put(heading, column, text, panel == m_panel ? Colour::Accent : Colour::Plain,
            panel == m_panel ? A_BOLD | A_REVERSE : A_NORMAL);
        column += Columns(text) + 1;
    }
    switch (m_panel)
    {
    case Panel::Queue:
        return DrawQueue(layout, queue);
    case Panel::Equalizer:
        return DrawEqualizer(layout, status);
    case Panel::Radio:
        return DrawRadio(layout, status);
    }
}

void Screen::DrawQueue(const Layout& layout, const Queue& queue)
{
    const auto& entries = queue.Entries();
    const auto rows = static_cast<size_t>(layout.panelRows);
    if (entries.empty())
        return Put(layout.panelTop, 2, "Nothing to play.", Colour::Dim);
    m_selected = std::min(m_selected, entries.size() - 1);
    if (m_selected < m_firstShown)
        m_firstShown = m_selected;
    if (m_selected >= m_firstShown + rows)
        m_firstShown = m_selected - rows + 1;
    m_firstShown = std::min(m_firstShown, entries.size() > rows ? entries.size() - rows : 0);
    const auto digits = static_cast<int>(std::to_string(entries.size()).size());
    for (size_t row = 0; row < rows && m_firstShown + row < entries.size(); ++row)
    {
        const size_t index = m_firstShown + row;
        const Entry& entry = entries[index];
        const bool bCurrent = index == queue.Current();
        std::string number = std::to_string(index + 1);
        number.insert(0, static_cast<size_t>(digits) - number.size(), ' ');
        const std::string label = m_bUtf8 ? entry.label : Ascii(entry.label);
        const std::string text = std::string(bCurrent        ? "> "
                                             : entry.bFailed ? "! "
                                                             : "  ") +
                                 number + "  " + label;
        Put(layout.panelTop + static_cast<int>(row), 1, Fitted(text, std::max(COLS - 2, 0)),
            entry.bFailed ? Colour::Error
            : bCurrent    ? Colour::Accent
                          : Colour::Plain,
            (index == m_selected ? A_REVERSE : A_NORMAL) | (bCurrent ? A_BOLD : A_NORMAL));
    }
}

void Screen::DrawEqualizer(const Layout& layout, const Status& status)
{
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    const Gains& gains = status.gainsDb;
    const int rows = std::max(layout.panelRows - 3, 1); // of the sliders
    const auto rowOf = [=](double dB)
    {
        return static_cast<int>(std::lround((kMaxGainDb - dB) / (2.0 * kMaxGainDb) * (rows - 1)));
    };
    for (size_t band = 0; band < gains.size(); ++band)
    {
        const int column = 2 + static_cast<int>(band) * kSliderColumns;
        const bool bSelected = band == m_band;
        for (int row = 0; row < rows; ++row)
            Put(layout.panelTop + row, column + 1,
                row == rowOf(gains[band]) ? glyphs.knob
                : m_bUtf8                 ? "│"
                                          : "|",
                row == rowOf(gains[band]) && status.live.bEqualizer ? Colour::Accent : Colour::Dim,
                bSelected && row == rowOf(gains[band]) ? A_BOLD | A_REVERSE : A_NORMAL);
        Put(layout.panelTop + rows, column, Fitted(GainText(gains[band]), 4),
            bSelected ? Colour::Accent : Colour::Plain, bSelected ? A_BOLD : A_NORMAL);
        Put(layout.panelTop + rows + 1, column, FrequencyText(kBandHz[band]), Colour::Dim);
    }
    std::string presets;
    for (size_t i = 0; i < status.presets.size(); ++i)
        presets += (i == status.builtInPresets ? "| " : "") +
                   (i < 9 ? std::to_string(i + 1) + " " : "") + status.presets[i].name + "  ";
    Put(layout.panelTop + rows + 2, 2, m_bUtf8 ? presets : Ascii(presets), Colour::Dim);
    const int left = 2 + static_cast<int>(gains.size()) * kSliderColumns + 2;
    if (COLS - left - 1 >= 16 && rows >= 3)
        DrawResponse(layout.panelTop, rows, left, COLS - left - 1, status);
}

// From 20 Hz to 20 kHz, as far as a slider goes up and down.
void Screen::DrawResponse(int top, int rows, int left, int columns, const Status& status)
{
    constexpr double kLowHz = 20.0;
    constexpr double kOctaves = 9.965784284662087; // to 20 kHz
    const auto at = [](int height, double dB)
    {
        return static_cast<int>(
            std::lround((1.0 - std::clamp(dB / kMaxGainDb, -1.0, 1.0)) * 0.5 * (height - 1)));
    };
    Dots curve(columns, rows, m_bUtf8);
    for (int x = 0; x < curve.Width(); ++x)
    {
        const double hertz = kLowHz * std::exp2(kOctaves * x / (curve.Width() - 1));
        const double dB = status.live.bEqualizer ? ResponseDb(status.gainsDb, hertz) : 0.0;
        curve.Set(x, at(curve.Height(), dB));
    }
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column)
        {
            const std::string cell = curve.Cell(column, row);
            if (!cell.empty())
                Put(top + row, left + column, cell, Colour::Accent);
            else if (row == at(rows, 0.0))
                Put(top + row, left + column, m_bUtf8 ? "╌" : "-", Colour::Dim);
        }
    Put(top + rows, left, "20");
    Put(top + rows, left + columns / 2 - 3, "630 Hz");
    Put(top + rows, left + columns - 3, "20k");
}

void Screen::DrawRadio(const Layout& layout, const Status& status)
{
    const auto shown = [this](const std::string& text)
    {
        return m_bUtf8 ? Printable(text) : Ascii(Printable(text));
    };
    if (!status.bStream)
        return Put(layout.panelTop, 2, "No station is playing.", Colour::Dim);
    const auto& stream = status.stream;
    const Glyphs& glyphs = m_bUtf8 ? kUtf8 : kAscii;
    int row = layout.panelTop;
    const int end = layout.panelTop + layout.panelRows;
    const auto line = [&](const char* name, const std::string& text)
    {
        if (text.empty() || row >= end)
            return;
        Put(row, 2, name, Colour::Dim);
        Put(row++, 14, Fitted(shown(text), std::max(COLS - 15, 0)));
    };
    const auto joined = [&](std::initializer_list<std::string> parts)
    {
        std::string text;
        for (const std::string& part : parts)
            if (!part.empty())
                text += (text.empty() ? "" : glyphs.separator) + part;
        return text;
    };
    line("Station", joined({stream.IcyName, stream.IcyGenre}));
    line("Address", status.name);
    line("Format",
         joined({stream.Codec,
                 stream.BitRate > 0 ? std::to_string(stream.BitRate / 1000) + " kb/s" : "",
                 stream.SampleRate > 0 ? std::to_string(stream.SampleRate) + " Hz" : "",
                 stream.Channels > 0 ? std::to_string(stream.Channels) + " ch" : "",
                 stream.ContentType}));
    line("Reconnected", std::to_string(stream.ReconnectAttempt) + " of " +
                            std::to_string(stream.MaxReconnectAttempts));
    for (const TitleAtTime& title : status.titles)
        line(title.time.c_str(), title.title);
}

void Screen::DrawMessage(const Layout& layout, const Status& status)
{
    const std::string name = Printable(m_name); // also while a character is half typed
    if (m_bNaming)
        Put(layout.rows - 2, 1, "Name of the preset: " + (m_bUtf8 ? name : Ascii(name)) + "_",
            Colour::Accent, A_BOLD);
    else if (!status.error.empty())
        Put(layout.rows - 2, 1,
            Fitted(m_bUtf8 ? status.error : Ascii(status.error), std::max(COLS - 2, 0)),
            Colour::Error);
    const std::vector<const char*> hints =
        m_panel == Panel::Equalizer
            ? std::vector{"? help",     "left right band", "up down gain",
                          "1-9 preset", "w keep",          "x forget"}
            : std::vector{"? help", "q quit", "space pause", "n next", "p previous", "tab panel"};
    int column = 1;
    for (const char* hint : hints)
    {
        if (column + Columns(hint) >= COLS)
            break;
        Put(layout.rows - 1, column, hint, Colour::Dim);
        column += Columns(hint) + 2;
    }
}

void Screen::DrawHelp(const Layout& layout)
{
    static constexpr std::pair<const char*, const char*> kKeys[] = {
        {"space", "pause, go on"},
        {"left right", "seek 5 seconds (in the equalizer: the band)"},
        {"< >", "seek 5 seconds, in every panel"},
        {"PgUp PgDn", "seek a minute"},
        {"up down", "the queue's selection (in the equalizer: the gain)"},
        {"+ -", "volume"},
        {"[ ]", "pan to the left, to the right"},
        {"e", "equalizer on, off"},
        {"1 to 9", "preset of the equalizer"},
        {"w x", "in the equalizer: keep as a preset, forget it"},
        {"n p", "next, previous (or to the beginning, as Home)"},
        {"enter", "play what is selected"},
        {"s r", "shuffle, repeat"},
        {"tab", "queue, equalizer, radio"},
        {"q", "quit"},
    };
    constexpr int kWidth = 66;
    const int height = static_cast<int>(std::size(kKeys)) + 2;
    const int top = std::max((layout.rows - height) / 2, 0);
    const int left = std::max((layout.columns - kWidth) / 2, 0);
    for (int row = 0; row < height; ++row)
    {
        std::string text;
        if (row > 0 && row <= static_cast<int>(std::size(kKeys)))
            text = "  " + Fitted(kKeys[row - 1].first, 12) + kKeys[row - 1].second;
        Put(top + row, left, Fitted(text, std::min(kWidth, COLS)), Colour::Plain, A_REVERSE);
    }
}

// ---- Keys

void Screen::ReadKeys(const Status& status, const Queue& queue)
{
    if (m_bLeft || !IsForeground())
        return; // what is typed is the shell's
    for (int key = getch(); key != ERR; key = getch())
        OnKey(key, status, queue);
}

void Screen::OnKey(int key, const Status& status, const Queue& queue)
{
    if (key == KEY_RESIZE)
        return; // no key: the next picture has the new size
    if (m_bNaming)
        return OnNameKey(key);
    if (key == KEY_MOUSE)
        return OnMouse(status, queue);
    if (std::exchange(m_bHelp, false) && key != 'q')
        return;
    if (OnPanelKey(key, status, queue))
        return;
    switch (key)
    {
    case ' ':
        return m_control.TogglePause();
    case KEY_LEFT:
    case '<':
    case ',':
        return m_control.SeekBy(-kSeekStepSeconds);
    case KEY_RIGHT:
    case '>':
    case '.':
        return m_control.SeekBy(kSeekStepSeconds);
    case KEY_PPAGE:
        return m_control.SeekBy(-kLongSeekStepSeconds);
    case KEY_NPAGE:
        return m_control.SeekBy(kLongSeekStepSeconds);
    case KEY_HOME:
        return m_control.SeekTo(0.0);
    case '+':
    case '=':
        return m_control.AdjustVolume(kVolumeStep);
    case '-':
        return m_control.AdjustVolume(-kVolumeStep);
    case '[':
        return m_control.AdjustPan(-kPanStep);
    case ']':
        return m_control.AdjustPan(kPanStep);
    case 'e':
        return m_control.ToggleEqualizer();
    case 'n':
        return m_control.Next();
    case 'p':
        return m_control.Previous();
    case 's':
        return m_control.SetShuffle(!queue.IsShuffled());
    case 'r':
        return m_control.SetRepeat(queue.Repeats() == Repeat::Off   ? Repeat::All
                                   : queue.Repeats() == Repeat::All ? Repeat::One
                                                                    : Repeat::Off);
    case '\t':
        m_bPanelChosen = true;
        m_panel = m_panel == Panel::Radio ? Panel::Queue
                                          : static_cast<Panel>(static_cast<int>(m_panel) + 1);
        return;
    case '?':
    case 'h':
        m_bHelp = true;
        return;
    case 'q':
        return m_control.Quit();
    default:
        if (key >= '1' && key <= '9' && static_cast<size_t>(key - '1') < status.presets.size())
            m_control.UsePreset(status.presets[static_cast<size_t>(key - '1')]);
    }
}

// What is another key in another panel.
bool Screen::OnPanelKey(int key, const Status& status, const Queue& queue)
{
    if (m_panel == Panel::Equalizer)
    {
        switch (key)
        {
        case KEY_LEFT:
            m_band -= m_band > 0 ? 1 : 0;
            return true;
        case KEY_RIGHT:
            m_band += m_band + 1 < status.gainsDb.size() ? 1 : 0;
            return true;
        case KEY_UP:
            ChangeGain(m_band, status.gainsDb[m_band] + kGainStepDb, status);
            return true;
        case KEY_DOWN:
            ChangeGain(m_band, status.gainsDb[m_band] - kGainStepDb, status);
            return true;
        case 'w':
            m_bNaming = true;
            m_name.clear();
            return true;
        case 'x':
            for (size_t i = status.builtInPresets; i < status.presets.size(); ++i)
                if (status.presets[i].gainsDb == status.gainsDb)
                {
                    m_control.ForgetPreset(std::string(status.presets[i].name));
                    break;
                }
            return true;
        default:
            return false;
        }
    }
    switch (key)
    {
    case KEY_UP:
    case 'k':
        Select(static_cast<std::ptrdiff_t>(m_selected) - 1, queue);
        return true;
    case KEY_DOWN:
    case 'j':
        Select(static_cast<std::ptrdiff_t>(m_selected) + 1, queue);
        return true;
    case '\r':
    case '\n':
    case KEY_ENTER:
        if (m_panel == Panel::Queue && m_selected < queue.Entries().size())
            m_control.Choose(m_selected);
        return true;
    default:
        return false;
    }
}

void Screen::OnNameKey(int key)
{
    constexpr size_t kLongestName = 20;
    if (key == '\r' || key == '\n' || key == KEY_ENTER)
    {
        m_bNaming = false;
        if (!m_name.empty())
            m_control.KeepPreset(Printable(m_name));
    }
    else if (key == kEscape)
        m_bNaming = false;
    else if (key == KEY_BACKSPACE || key == 127 || key == '\b')
    {
        while (!m_name.empty() && (m_name.back() & 0xC0) == 0x80) // of one character in UTF-8
            m_name.pop_back();
        if (!m_name.empty())
            m_name.pop_back();
    }
    else if (const bool bInside = (key & 0xC0) == 0x80; // of one character in UTF-8
             key >= ' ' && key <= 0xFF && (m_name.size() < kLongestName || bInside))
        m_name += static_cast<char>(key);
}

void Screen::OnMouse(const Status& status, const Queue& queue)
{
    MEVENT event;
    if (getmouse(&event) != OK)
        return;
    if (event.bstate & BUTTON4_PRESSED)
        return m_control.AdjustVolume(kVolumeStep);
    if (event.bstate & BUTTON5_PRESSED)
        return m_control.AdjustVolume(-kVolumeStep);
    // A press and a release that come at once are one click.
    constexpr mmask_t kTwice = BUTTON1_DOUBLE_CLICKED | BUTTON1_TRIPLE_CLICKED;
    if (!(event.bstate & (BUTTON1_PRESSED | BUTTON1_CLICKED | kTwice)))
        return;
    m_bHelp = false;
    const Layout layout = Measure();
    const Span bar = PositionBar(status);
    if (event.y == kBarRow && bar.count > 1 && event.x >= bar.begin &&
        event.x < bar.begin + bar.count)
        return m_control.SeekTo(status.live.duration * (event.x - bar.begin) / (bar.count - 1));
    if (layout.panelRows > 0 && event.y == layout.panelTop - 1)
    {
        m_bPanelChosen = true;
        m_panel = event.x < 10 ? Panel::Queue : event.x < 22 ? Panel::Equalizer : Panel::Radio;
        return;
    }
    const int row = event.y - layout.panelTop;
    if (row < 0 || row >= layout.panelRows)
        return;
    if (m_panel == Panel::Queue)
    {
        const size_t index = m_firstShown + static_cast<size_t>(row);
        if (index >= queue.Entries().size())
            return;
        if (index == m_selected || event.bstate & kTwice)
            m_control.Choose(index);
        m_selected = index;
    }
    else if (m_panel == Panel::Equalizer)
    {
        const int rows = std::max(layout.panelRows - 3, 1);
        const int band = (event.x - 2) / kSliderColumns;
        if (row >= rows || rows < 2 || event.x < 2 ||
            band >= static_cast<int>(status.gainsDb.size()))
            return;
        m_band = static_cast<size_t>(band);
        ChangeGain(m_band, std::round(kMaxGainDb - 2.0 * kMaxGainDb * row / (rows - 1)), status);
    }
}

void Screen::Select(std::ptrdiff_t index, const Queue& queue)
{
    const auto count = static_cast<std::ptrdiff_t>(queue.Entries().size());
    if (index >= 0 && index < count)
        m_selected = static_cast<size_t>(index);
}

void Screen::ChangeGain(size_t band, double dB, const Status& status)
{
    const double gain = std::clamp(dB, -kMaxGainDb, kMaxGainDb);
    if (gain != status.gainsDb[band])
        m_control.SetGain(band, gain);
}
