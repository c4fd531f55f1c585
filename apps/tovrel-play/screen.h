// The player on the whole of a terminal.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "control.h"
#include "meters.h"
#include "status.h"

// Owns the terminal from Open to its destruction. One thread.
class Screen
{
public:
    // Null where standard output is no terminal, or one that cannot place its cursor, or where
    // there are no keys. `bUtf8`: whether it shows more than ASCII.
    static std::unique_ptr<Screen> Open(Control& control, bool bUtf8);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // To be polled for reading.
    int KeyDescriptor() const;
    void ReadKeys(const Status& status, const Queue& queue);
    bool HasKeys() const { return m_bKeys; }
    void LoseKeys() { m_bKeys = false; } // the connection is gone

    // How many bands the spectrum is shown in; 0 where there is no room for it.
    size_t SpectrumBands() const;

    // Does nothing where the program is in the background, or the terminal takes nothing now.
    void Draw(const Status& status, const Queue& queue, const Meters& meters);

    // Gives the terminal back until the next Draw, or tells that somebody else had it meanwhile.
    void Leave();
    void Retake();

private:
    struct Terminal;
    enum class Panel
    {
        Queue,
        Equalizer,
        Radio,
    };
    struct Layout
    {
        int rows = 0;
        int columns = 0;
        int spectrumTop = 0; // its first row below its heading
        int spectrumRows = 0;
        int panelTop = 0; // likewise
        int panelRows = 0;
        bool bMessage = false; // a row for the last error
    };

    explicit Screen(Control& control, bool bUtf8, std::unique_ptr<Terminal> terminal);
    Layout Measure() const;

    void DrawHeader(const Status& status, const Queue& queue);
    void DrawSound(const Status& status);
    void DrawSpectrum(const Layout& layout, const Meters& meters);
    void DrawPanel(const Layout& layout, const Status& status, const Queue& queue);
    void DrawQueue(const Layout& layout, const Queue& queue);
    void DrawEqualizer(const Layout& layout, const Status& status);
    void DrawResponse(int top, int rows, int left, int columns, const Status& status);
    void DrawRadio(const Layout& layout, const Status& status);
    void DrawMessage(const Layout& layout, const Status& status);
    void DrawHelp(const Layout& layout);

    void OnKey(int key, const Status& status, const Queue& queue);
    bool OnPanelKey(int key, const Status& status, const Queue& queue);
    void OnNameKey(int key);
    void OnMouse(const Status& status, const Queue& queue);
    void Select(std::ptrdiff_t index, const Queue& queue);
    void ChangeGain(size_t band, double dB, const Status& status);

    Control& m_control;
    const bool m_bUtf8;
    std::unique_ptr<Terminal> m_terminal;
    bool m_bKeys = true;
    bool m_bLeft = false;
    bool m_bHelp = false;
    bool m_bNaming = false; // a preset
    std::string m_name;     // as far as it is typed
    Panel m_panel = Panel::Queue;
    bool m_bPanelChosen = false; // by the user
    size_t m_selected = 0;       // entry of the queue
    size_t m_current = Queue::kNone;
    size_t m_firstShown = 0;
    size_t m_band = 0; // of the equalizer, whose slider moves
};
