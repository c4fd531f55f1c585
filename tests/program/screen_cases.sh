# shellcheck shell=bash
# The cases of program_test.sh in which the player has the whole of a terminal.
#
# SC2154, SC2034: what seems to be unset is set there, and what seems to be unused is used there.
# shellcheck disable=SC2154,SC2034

# open_screen COLUMNS ROWS ARGUMENT...: a terminal that the player fills, once it plays.
open_screen() {
    local columns=$1 rows=$2
    shift 2
    mode=
    open_terminal "$columns" "$rows"
    enter "play $*"
    await 'playing'
}
# open_job: the same as a job of the shell's, which can stop it and make it go on.
open_job() {
    album
    mode=
    open_terminal 80 24
    enter "\$player 1.flac"
    await_row 5 '^ playing'
}
expect_ended() {
    await "ended with $1"
    expect_restored
}
row() { screen | sed -n "$1p"; }
row_has() { row "$1" | grep -q -- "$2"; }
await_row() { wait_for "'$2' in row $1" row_has "$1" "$2"; }
widest() { screen | LC_ALL=C.UTF-8 wc -L; }
# click COLUMN ROW, both from 0: as an xterm of old tells it.
click() {
    local column row
    printf -v column '\\%o' $((33 + $1))
    printf -v row '\\%o' $((33 + $2))
    # shellcheck disable=SC2059 # the escapes are the format's
    keys -l "$(printf "\e[M $column$row")"
    # shellcheck disable=SC2059
    keys -l "$(printf "\e[M#$column$row")"
}
state_file() { cat "$XDG_STATE_HOME/tovrel-play/state.json"; }

album() {
    local i
    for i in 1 2 3; do
        tone "$i.flac" "${1:-30}" -metadata title="Song $i" -metadata artist=Who \
            -metadata album="All of it"
    done
}

case_screen_shows_what_plays() {
    album
    open_screen 80 24 1.flac 2.flac 3.flac
    await_row 1 'Tovrel.*1/3'
    await_row 2 '^ Song 1$'
    await_row 3 '^ Who · All of it$'
    await_row 4 '^ 0:0[0-9] [━●─]* 0:30$'
    await_row 5 '^ playing *vol █*─* 100% *pan C *eq flat'
    await_row 6 'Spectrum, dB ─* L  R ─'
    await_row 14 'Queue.*Equalizer.*Radio'
    await_row 15 '> 1  Who - Song 1'
    await_row 16 '  2  2.flac'
    await_row 24 '? help  q quit  space pause '
    wait_for "the spectrum" row_has 12 '█'
    [ "$(widest)" -le 80 ] || fail "wider than the terminal"
    keys q
    expect_ended 0
}

case_screen_keys() {
    album
    open_screen 80 24 1.flac 2.flac 3.flac
    keys Space
    await_row 5 '^ paused'
    keys Space
    await_row 5 '^ playing'
    keys +
    await_row 5 '105%'
    keys - - -
    await_row 5 ' 90%'
    keys ']' ']'
    await_row 5 'pan R20'
    keys Space
    await_row 5 '^ paused'
    keys '>' '>'
    await_row 4 '^ 0:1[0-9]'
    keys '<'
    await_row 4 '^ 0:0[5-9]'
    keys n
    await_row 1 '2/3'
    await_row 2 'Song 2'
    await_row 5 '^ paused'
    keys n n p
    await_row 2 'Song 2'
    await_row 5 '^ paused'
    keys Space
    await_row 5 '^ playing'
    keys p
    await_row 2 'Song 1'
    keys s r
    await_row 1 'shuffle · repeat all'
    keys r
    await_row 1 'repeat one'
    keys r s
    await_row 1 'Tovrel *1/3$'
    keys '?'
    await 'seek a minute'
    keys '?'
    wait_for "the end of the help" hides 'seek a minute'
    keys q
    expect_ended 0
}
hides() { ! sees "$1"; }

case_screen_plays_what_is_selected() {
    album
    open_screen 80 24 1.flac 2.flac 3.flac
    keys Down Down Enter
    await_row 2 'Song 3'
    keys k Enter
    await_row 2 'Song 2'
    keys q
    expect_ended 0
}

case_screen_stays_at_the_end() {
    album 1
    open_screen 80 24 1.flac
    await_row 5 '^ stopped'
    keys Space
    await_row 5 '^ playing'
    await_row 5 '^ stopped'
    keys q
    expect_ended 0
}

case_screen_ends_once() {
    album 1
    open_screen 80 24 --once 1.flac 2.flac
    expect_ended 0
}

case_screen_repeats() {
    album 1
    open_screen 80 24 --repeat 1.flac 2.flac
    await_row 2 'Song 2'
    await_row 2 'Song 1'
    keys q
    expect_ended 0
}

case_screen_equalizer() {
    album
    open_screen 80 24 1.flac
    keys Tab
    await_row 22 '1 Flat  2 Bass  3 Treble  4 Vocal  5 Loudness'
    keys 2
    await_row 5 'eq Bass'
    await_row 20 '+7 *+6 *+5'
    keys Up
    await_row 20 '+8 *+6 *+5'
    await_row 5 'eq on'
    keys Right Down Down
    await_row 20 '+8 *+4 *+5'
    keys e
    await_row 5 'eq off'
    keys e 1
    await_row 5 'eq flat'
    keys q
    expect_ended 0
}

case_screen_keeps_presets() {
    album
    open_screen 80 24 1.flac
    keys Tab
    await 'Loudness'
    keys Up Up w
    await 'Name of the preset: _'
    keys -l 'Mine'
    keys Enter
    await '| 6 Mine'
    await_row 5 'eq Mine'
    keys q
    expect_ended 0
    state_file | grep -q '"Mine"' || fail "it is not kept"
    open_screen 80 24 1.flac
    keys Tab 6
    await_row 5 'eq Mine'
    keys x
    wait_for "the preset to go" hides '6 Mine'
    keys q
    await 'ended with 0'
    ! state_file | grep -q '"Mine"' || fail "it is still kept"
}

case_screen_volume_is_kept() {
    album
    open_screen 80 24 1.flac
    keys - - - -
    await_row 5 ' 80%'
    keys q
    expect_ended 0
    open_screen 80 24 1.flac
    await_row 5 ' 80%'
    keys q
    expect_ended 0
    open_screen 80 24 --volume 0.5 1.flac
    await_row 5 ' 50%'
    keys q
    expect_ended 0
    state_file | grep -q '"volume": 0.8' || fail "the option was kept"
    record 1.flac --duration 1
    expect_peaks "-21 -21" # off a terminal nothing of it counts
}

case_screen_mouse() {
    album 60
    open_screen 80 24 1.flac 2.flac
    keys Space
    await_row 5 '^ paused'
    click 40 3
    await_row 4 '^ 0:[23][0-9]'
    keys Space
    click 15 13
    await 'Loudness'
    click 12 14
    await_row 20 '^ *0 *0 *+18 '
    click 3 13
    click 10 15
    click 10 15
    await_row 2 'Song 2'
    keys -l $'\e[M`!!' # the wheel, upwards
    await_row 5 ' 105%'
    keys q
    expect_ended 0
}

case_screen_sizes() {
    album
    open_screen 80 24 1.flac 2.flac 3.flac
    local size
    for size in 40x12 30x8 20x4 10x2 200x60 132x43 80x24; do
        on_tmux resize-window -x "${size%x*}" -y "${size#*x}"
        wait_for "the size $size" is_drawn_for "${size#*x}"
        [ "$(widest)" -le "${size%x*}" ] || fail "wider than $size"
    done
    await_row 24 'q quit'
    await_row 2 'Song 1'
    keys q
    expect_ended 0
}
is_drawn_for() {
    case $1 in
    2) sees Tovrel ;;
    4) row_has 2 'Song' ;;
    *) row_has "$1" 'help' ;;
    esac
}

case_screen_in_ascii() {
    tone umlaut.flac 30 -metadata title=Größe -metadata artist=Wer
    environment='LC_ALL=C' open_screen 80 24 umlaut.flac
    await_row 2 '^ Gr??e$'
    await_row 4 '^ 0:0[0-9] [=O-]* 0:30$'
    keys Tab 2
    await 'Loudness'
    ! screen | LC_ALL=C grep -q '[^ -~]' || fail "more than ASCII"
    keys q
    expect_ended 0
}

case_screen_without_colours() {
    album
    environment='NO_COLOR=1' open_screen 80 24 1.flac
    ! on_tmux capture-pane -p -e | grep -q $'\e\\[[0-9;]*[349][0-8]' || fail "colours"
    keys q
    expect_ended 0
    environment='TERM=vt100' open_screen 80 24 1.flac
    await_row 2 'Song 1'
    keys q
    await 'ended with 0'
}

case_screen_in_colours() {
    album
    environment='TERM=xterm-256color' open_screen 80 24 1.flac
    wait_for "colours" has_colours '38;5;75'
    keys q
    expect_ended 0
    environment='TERM=xterm-256color COLORTERM=truecolor' open_screen 80 24 1.flac
    wait_for "exact colours" has_colours '38;2;95;175;255'
    keys q
    expect_ended 0
}
has_colours() { on_tmux capture-pane -p -e | grep -q -- "$1"; }

case_screen_shows_strange_tags() {
    tone strange.flac 30 -metadata title="$(printf 'a\e[31mb\nc')" -metadata artist='日本語の歌手'
    open_screen 40 24 strange.flac
    await_row 2 '^ a?\[31mb?c$'
    await_row 3 '^ 日本語の歌手$'
    [ "$(widest)" -le 40 ] || fail "wider than the terminal"
    keys q
    expect_ended 0
}

case_screen_on_a_dumb_terminal_is_lines() {
    album 1
    mode=
    open_terminal 80 24
    enter 'TERM=dumb play 1.flac'
    await '^Playing 1.flac: Who - Song 1 (0:01)$'
    await 'ended with 0'
}

case_screen_tells_errors() {
    album
    : >empty.wav
    open_screen 80 24 nowhere.flac empty.wav 1.flac
    await_row 23 'empty.wav: Failed to open audio file: Invalid data'
    await_row 15 '! 1  nowhere.flac'
    await_row 16 '! 2  empty.wav'
    await_row 17 '> 3  Who - Song 1'
    keys q
    await 'tovrel-play: nowhere.flac: Failed to open audio file: No such file or directory'
    await 'tovrel-play: empty.wav: Failed to open audio file: Invalid data'
    expect_ended 1
}

case_screen_of_nothing_ends_quietly() {
    mode=
    open_terminal 80 24
    enter 'play --repeat nowhere.flac'
    await 'Failed to open audio file: No such file or directory'
    await_row 5 'stopped'
    keys q
    expect_ended 1
}

case_screen_stops_and_goes_on() {
    open_job
    keys C-z
    await 'Stopped'
    is_restored || fail "the cursor or the wrapping of lines is not restored"
    enter fg
    await_row 5 '^ playing'
    await_row 2 'Song 1'
    keys q
    await 'ready>'
}

# Whoever ignores the signal, be it for a moment, loses one that waits to be read.
case_screen_never_ignores_a_stop() {
    open_job
    local pid
    pid=$(pid_of_job)
    perl -e 'for (1 .. 20000) {
        open my $status, "<", "/proc/$ARGV[0]/status" or die;
        my ($ignored) = map { /^SigIgn:\s*(\w+)/ ? hex $1 : () } <$status>;
        die "SIGTSTP is ignored\n" if $ignored >> 19 & 1
    }' "$pid" || fail "it is ignored"
    kill -TERM "$pid"
}

case_screen_goes_on_in_the_background() {
    open_job
    keys C-z
    await 'Stopped'
    enter bg
    sleep 1 # time to be stopped for touching the terminal
    enter 'jobs; echo typed'
    await 'Running'
    await '^typed'
    enter fg
    await_row 5 '^ playing'
    keys q
    await 'ready>'
}

case_screen_comes_back_after_a_stop_from_outside() {
    open_job
    signal_player STOP
    await 'Stopped'
    enter fg
    await_row 5 '^ playing'
    await_row 24 '? help'
    keys q
    await 'ready>'
}

# One that reads from a pipe cannot be ended before somebody writes.
case_screen_waits_for_a_stuck_worker() {
    album
    mkfifo pipe
    mode=
    open_terminal 80 24
    enter 'play pipe 1.flac'
    await_row 5 '^ opening'
    keys n
    sleep 1
    ! sees 'ended with' || fail "it has given up"
    : >pipe
    await_row 2 'Song 1'
    keys q
    expect_ended 0
    enter 'play pipe 1.flac'
    await_row 5 '^ opening'
    keys n q
    expect_ended 0
}

case_screen_ends_by_a_signal() {
    album
    open_screen 80 24 1.flac
    keys C-c
    expect_ended 130
}

case_screen_radio() {
    serve
    source_of station -ice_name 'The Station' -ice_genre Jazz
    open_screen 80 24 "$radio/station"
    await_row 3 'Jazz · mp3'
    await 'Station *The Station · Jazz'
    await 'Format *mp3 · 128 kb/s · 44100 Hz · 2 ch · audio/mpeg'
    await 'Reconnected *0 of 300'
    title station First
    await '^  [0-9:]* *First$'
    title station Second
    await '^  [0-9:]* *Second$'
    sees '^  [0-9:]* *First$' || fail "the first title is gone"
    end_source
    await_row 5 'reconnecting 1/300'
    keys q
    expect_ended 0
}
