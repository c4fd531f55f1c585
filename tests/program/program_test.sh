#!/usr/bin/env bash
# Use: scripts/with-null-sink tests/program/program_test.sh PROGRAM CASE
#
# Runs one case on the player program; each function case_CASE here and in the scripts beside this
# one is one.
# Every wait is for something to be seen, with an end: the times are loose, for builds with
# sanitizers.
set -euo pipefail
tests=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
program=$(readlink -f "$1")
case=$2

dir=$(mktemp -d)
runner=() # what the player is run with
player=   # the process id of one that runs beside the case
recorder=
servers=() # the process ids of what the player is to talk to
clean_up() {
    [ -z "$player" ] || kill -KILL "$player" 2>/dev/null || true
    [ -z "$recorder" ] || kill -KILL "$recorder" 2>/dev/null || true
    [ ! -S "$dir/tmux" ] || on_tmux kill-server || true
    local server
    for server in "${servers[@]}"; do
        kill -TERM "$server" 2>/dev/null || true
        wait "$server" || true
    done
    rm -rf "$dir"
}
trap clean_up EXIT
cd "$dir"
export LC_ALL=C.UTF-8
# Not the user's: cases that need a bus have one of their own.
unset DBUS_SESSION_BUS_ADDRESS COLORTERM NO_COLOR

fail() {
    echo "FAILED: $*"
    for file in out err; do
        [ ! -s "$dir/$file" ] || sed "s/^/$file: /" "$dir/$file"
    done
    [ ! -S "$dir/tmux" ] || screen | sed 's/^/screen: /'
    exit 1
}

# happens COMMAND...: whether the command succeeds, within 20 s.
happens() {
    for _ in $(seq 400); do
        ! "$@" || return 0
        sleep 0.05
    done
    return 1
}

# wait_for WHAT COMMAND...: until the command succeeds.
wait_for() {
    local what=$1
    shift
    happens "$@" || fail "waited in vain for $what"
}

# ---- Material ---------------------------------------------------------------------------------

# tone NAME SECONDS [FFMPEG ARGUMENT...]
tone() {
    local name=$1 seconds=$2
    shift 2
    ffmpeg -nostdin -v error -f lavfi -i "sine=440:d=$seconds" -ac 2 "$@" "file:$name"
}

# first_half FROM TO
first_half() { head -c $(($(stat -c %s "$1") / 2)) "$1" >"$2"; }

# ---- Off a terminal ---------------------------------------------------------------------------

# play ARGUMENT...: leaves the exit status in `status`, the output in the files out and err.
play() {
    status=0
    "${runner[@]}" "$program" "$@" >out 2>err </dev/null || status=$?
}

# start ARGUMENT...: the same, beside the case, as `player`.
start() {
    : >out # where the case could else read what an earlier run has left,
    : >err # since the shell empties them a moment later, beside the case
    "$program" "$@" >out 2>err </dev/null &
    player=$!
}

# stop SIGNAL: leaves the exit status in `status`, the milliseconds that it took in `took`.
stop() {
    local begin
    begin=$(date +%s%3N)
    kill "-$1" "$player"
    status=0
    wait "$player" || status=$?
    took=$(($(date +%s%3N) - begin))
    player=
}

expect_status() { [ "$status" -eq "$1" ] || fail "exit status $status, not $1"; }
expect_out() { [ "$(cat out)" = "$1" ] || fail "standard output is not: $1"; }
expect_err() { [ "$(cat err)" = "$1" ] || fail "standard error is not: $1"; }
expect_plain() {
    ! LC_ALL=C grep -q '[^[:print:][:space:]]\|[[:cntrl:]]' out err || fail "control characters"
}

# ---- What is heard ----------------------------------------------------------------------------

# record ARGUMENT...: plays, and leaves the loudest sample of each channel in `peaks`, in whole dB.
record() {
    # Once pw-cat wrote no more, with the player long gone: then it begins anew, and the player too.
    record_once "$@" || record_once "$@" || fail "the recorder stands still: $(cat recorder.err)"
    peaks=$(ffmpeg -nostdin -i heard.wav -af astats=measure_overall=none -f null - 2>&1 |
        sed -n 's/.*Peak level dB: //p' | xargs printf '%.0f ')
}
record_once() {
    rm -f heard.wav
    pw-cat -r --target null-sink -P '{stream.capture.sink=true}' heard.wav 2>recorder.err &
    recorder=$!
    wait_for "the recorder" hears_something
    play "$@"
    expect_status 0
    # Played to the end means presented to the end: one buffer of the recorder may be on its way.
    local end result=0
    end=$(stat -c %s heard.wav)
    happens test_size $((end + 100000)) || result=1
    kill -TERM "$recorder" || true
    wait "$recorder" || true
    recorder=
    return "$result"
}
test_size() { [ -f heard.wav ] && [ "$(stat -c %s heard.wav)" -ge "$1" ]; }
hears_something() { test_size 20000; }
expect_peaks() { [ "$peaks" = "$1 " ] || fail "peaks of $peaks dB, not $1"; }

# ---- On a terminal ----------------------------------------------------------------------------

on_tmux() { env -u TMUX tmux -S "$dir/tmux" -f /dev/null -u "$@"; }

# open_terminal COLUMNS [ROWS]: a shell in which `play` notes the settings of the terminal before and
# after and says how the program ended. It plays on one line where `mode` is not empty, with what
# `environment` sets.
mode=--line
environment=
open_terminal() {
    [ ! -S "$dir/tmux" ] || on_tmux kill-server
    rm -f ended
    cat >rc <<END
PS1='ready> '
unset HISTFILE
player=$(printf %q "$program")
mode=$mode
play() {
    stty -a >before
    env $environment "\$player" \$mode "\$@"
    echo "ended with \$?"
    stty -a >after
    : >ended
}
END
    on_tmux new-session -d -x "$1" -y "${2:-24}" "exec bash --noprofile --rcfile rc -i"
    wait_for "the shell" sees 'ready>'
}
enter() { on_tmux send-keys "$1" Enter; }
keys() { on_tmux send-keys "$@"; }
screen() { on_tmux capture-pane -p; }
sees() { screen | grep -q -- "$1"; }
await() { wait_for "'$1' on the screen" sees "$1"; }
# The live line, and the position on it in seconds.
line() { screen | grep ' / ' | tail -n 1; }
position() {
    local minutes seconds
    IFS=: read -r minutes seconds < <(line | grep -o '[0-9]*:[0-9]* /' | tr -d ' /')
    echo $((minutes * 60 + 10#$seconds))
}
position_is_over() { [ "$(position)" -ge "$1" ]; }
position_is() { [ "$(position)" -eq "$1" ]; }
is_hidden() { [ "$(on_tmux display-message -p '#{cursor_flag}')" = 0 ]; }
is_restored() { [ "$(on_tmux display-message -p '#{cursor_flag}#{wrap_flag}')" = 11 ]; }

expect_restored() {
    wait_for "the program to end" test -e ended
    diff before after || fail "other settings of the terminal than before"
    is_restored || fail "the cursor or the wrapping of lines is not restored"
}

# ---- What is played, and what is said of it ---------------------------------------------------

case_plays_a_file_to_its_end() {
    tone tone.wav 2
    local begin
    begin=$(date +%s%3N)
    play tone.wav
    expect_status 0
    expect_out "Playing tone.wav (0:02)"
    expect_err ""
    [ $(($(date +%s%3N) - begin)) -ge 1900 ] || fail "it was over too soon"
}

case_plays_every_file_in_turn() {
    tone one.wav 1
    tone two.ogg 1 -metadata title=Zwei -metadata artist=Wer
    tone three.mp3 1 -metadata title=Größe
    play one.wav two.ogg three.mp3
    expect_status 0
    expect_out "$(printf '%s\n' "Playing one.wav (0:01)" "Playing two.ogg: Wer - Zwei (0:01)" \
        "Playing three.mp3: Größe (0:01)")"
    expect_err ""
}

# bad FILE TEXT: the file is complained about, and the next one plays.
bad() {
    tone good.wav 0.3
    play "$1" good.wav
    expect_status 1
    expect_out "Playing good.wav (0:00)"
    expect_err "tovrel-play: $1: $2"
    expect_plain
}
invalid="Invalid data found when processing input"

case_missing_file() { bad nowhere.wav "Failed to open audio file: No such file or directory"; }

case_directory() {
    mkdir music
    bad music "This folder holds nothing to play."
}

case_empty_file() {
    : >empty.wav
    bad empty.wav "Failed to open audio file: $invalid"
}

case_garbage() {
    yes 'This is no music at all.' | head -c 50000 >garbage.bin || true
    bad garbage.bin "Failed to open audio file: $invalid"
}

case_picture() {
    ffmpeg -nostdin -v error -f lavfi -i color=red:s=64x64 -frames:v 1 picture.png
    bad picture.png "No audio stream found."
}

case_truncated_before_its_index() {
    tone whole.m4a 3
    first_half whole.m4a half.m4a
    bad half.m4a "Failed to open audio file: $invalid"
}

case_unreadable_file() {
    tone closed.wav 0.3
    chmod 000 closed.wav
    # Root may read everything, unless it gives up the right to.
    ((EUID != 0)) || runner=(setpriv '--bounding-set=-dac_override,-dac_read_search')
    bad closed.wav "Failed to open audio file: Permission denied"
}

# truncated NAME: a part is played, and the rest is missed.
truncated() {
    tone "whole.$1" 4
    first_half "whole.$1" "half.$1"
    tone good.wav 0.3
    play "half.$1" good.wav
    expect_status 1
    expect_out "$(printf '%s\n' "Playing half.$1 (0:04)" "Playing good.wav (0:00)")"
    grep -qx "tovrel-play: half.$1: The file is cut short: it ended at 0:0[12] of 0:04\." err ||
        fail "no word of the end"
}
case_truncated_flac() { truncated flac; }
case_truncated_mp3() { truncated mp3; }
case_truncated_matroska() { truncated mka; }

case_guessed_length_is_no_truncation() {
    # The beginning of a raw stream tells nothing of its rest: a loud one after a silent one makes
    # the guess too long.
    ffmpeg -nostdin -v error -f lavfi -i "anoisesrc=d=1" -b:a 256k loud.aac
    ffmpeg -nostdin -v error -f lavfi -i "anullsrc=d=4" silent.aac
    cat silent.aac loud.aac >guess.aac
    play guess.aac
    expect_status 0
    expect_err ""
}

case_no_daemon() {
    mkdir nobody
    tone tone.wav 1
    XDG_RUNTIME_DIR=$dir/nobody PIPEWIRE_RUNTIME_DIR=$dir/nobody play tone.wav tone.wav
    expect_status 1
    expect_out ""
    local text="tovrel-play: tone.wav: Failed to initialize PipeWire audio output."
    expect_err "$(printf '%s\n' "$text" "$text")"
}

case_names_with_control_characters() {
    local name=$'red\e[31m\a\r\u202e\xff.wav'
    tone "$name" 0.3
    play "$name" $'missing\e[2J'
    expect_status 1
    expect_out "Playing red?[31m????.wav (0:00)"
    expect_err "tovrel-play: missing?[2J: Failed to open audio file: No such file or directory"
    expect_plain
}

case_titles_with_control_characters() {
    tone title.flac 0.3 -metadata title=$'two\nlines\e[2J'
    play title.flac
    expect_status 0
    expect_out "Playing title.flac: two?lines?[2J (0:00)"
}

case_names_are_no_addresses() {
    tone "http:x.flac" 0.3 -metadata title=Colon
    play "http:x.flac" concat:x.flac
    expect_status 1
    expect_out "Playing http:x.flac: Colon (0:00)"
    expect_err "tovrel-play: concat:x.flac: Failed to open audio file: No such file or directory"
}

case_names_like_options() {
    tone -q.wav 0.3
    play -- -q.wav
    expect_status 0
    expect_out "Playing -q.wav (0:00)"
}

# ---- Options ----------------------------------------------------------------------------------

case_help_fits_one_screen() {
    play --help
    expect_status 0
    [ "$(wc -l <out)" -lt 24 ] || fail "too many lines"
    [ "$(wc -L <out)" -le 80 ] || fail "too long a line"
    for word in --volume --pan --eq --start --record --json --version 'status' 'Keys: ?'; do
        grep -q -- "$word" out || fail "no word of $word"
    done
}

case_version() {
    play --version
    expect_status 0
    grep -qx 'tovrel-play [0-9]*\.[0-9]*\.[0-9]*' out || fail "no version"
}

case_bad_options() {
    tone tone.wav 1
    while read -r arguments; do
        # shellcheck disable=SC2086 # the words are arguments
        play $arguments tone.wav
        expect_status 2
        expect_out ""
        grep -q "^tovrel-play: .*${arguments%%[ =]*}" err || fail "no clear message: $arguments"
    done <<'END'
--volume 1.6
--volume -0.1
--volume nan
--volume loud
--volume 1x
--volume=
--pan 1.1
--pan -1.1
--pan inf
--start -1
--start 1:30
--eq 1,2,3
--eq 0,0,0,0,0,0,0,0,0,19
--eq 0,0,0,0,0,0,0,0,0,0,0
--eq 0,0,0,0,,0,0,0,0,0
--rate 0
--rate 44.1
--channels 0
--channels 65
--duration -1
--record heard.mp3
--loud
END
    play
    expect_status 2
    grep -q 'SOURCE' err || fail "no clear message without a file"
}

case_good_options() {
    tone tone.wav 0.3
    while read -r arguments; do
        # shellcheck disable=SC2086 # the words are arguments
        play $arguments tone.wav
        expect_status 0
        expect_err ""
    done <<'END'
--volume 0
--volume=1.5
--pan -1
--pan -.5 --volume .5
--eq -18,18,+3,-0.5,0,0,0,0,0,1e0
--volume 0.1 --volume 0.2
--start 0
END
}

case_start_skips_what_is_before_it() {
    tone long.wav 60
    tone long.ogg 60
    local begin
    begin=$(date +%s)
    play --start 58 long.wav long.ogg
    expect_status 0
    expect_out "$(printf '%s\n' "Playing long.wav (1:00)" "Playing long.ogg (1:00)")"
    [ $(($(date +%s) - begin)) -lt 40 ] || fail "it played more than was asked for"
}

case_start_past_the_end() {
    tone tone.wav 2
    play --start 1000 tone.wav
    expect_status 0
    expect_out "Playing tone.wav (0:02)"
    expect_err ""
}

case_start_lets_nothing_before_it_be_heard() {
    # All of the short one is decoded before anybody could ask for a seek.
    ffmpeg -nostdin -v error -f lavfi -i "sine=1000:d=0.3,apad=pad_dur=0.15" -ac 2 short.wav
    ffmpeg -nostdin -v error -f lavfi -i "sine=1000:d=3,apad=pad_dur=2" -ac 2 long.wav
    record --start 0.35 short.wav
    expect_peaks "-inf -inf"
    record --start 3.5 long.wav
    expect_peaks "-inf -inf"
}

case_volume_pan_and_equalizer_are_heard() {
    # The tone peaks at 1/8 of full scale, and 3 dB lower in each of two channels.
    ffmpeg -nostdin -v error -f lavfi -i "sine=1000:d=0.6" -ac 2 tone.wav
    record tone.wav
    expect_peaks "-21 -21"
    record --volume 0.5 tone.wav
    expect_peaks "-27 -27"
    record --pan -1 tone.wav
    expect_peaks "-18 -inf"
    record --eq 0,0,0,0,0,12,0,0,0,0 tone.wav
    expect_peaks "-9 -9"
}

case_start_without_a_length() {
    tone tone.mp3 1 -write_xing 0 -id3v2_version 0
    play --start 0.5 <(cat tone.mp3)
    expect_status 0
    grep -q 'The length is unknown: played from its beginning\.$' err || fail "no word of it"
    grep -q '^Playing .* (length unknown)$' out || fail "it was not played"
}

# ---- Signals ----------------------------------------------------------------------------------

# stops_at_once SIGNAL STATUS
stops_at_once() {
    tone long.wav 60
    start long.wav long.wav
    wait_for "the start" grep -q Playing out
    stop "$1"
    expect_status "$2"
    expect_out "Playing long.wav (1:00)"
    expect_err ""
    [ "$took" -lt 2000 ] || fail "it took $took ms"
}
case_sigint_stops_at_once() { stops_at_once INT 130; }
case_sigterm_stops_at_once() { stops_at_once TERM 143; }
case_sighup_stops_at_once() { stops_at_once HUP 129; }

case_sigterm_stops_while_a_pipe_gives_nothing() {
    mkfifo pipe
    start pipe
    wait_for "the start" caught_signals
    stop TERM
    expect_status 143
    [ "$took" -lt 2000 ] || fail "it took $took ms"
}
# Whether the player has reached the point from which it takes signals in its own way.
caught_signals() { grep -q '^SigBlk:.*[1-9a-f]' "/proc/$player/status"; }

# restores_after HOW COMMAND...: on a terminal, with the exit status HOW.
restores_after() {
    local status=$1
    shift
    tone long.wav 60
    open_terminal 80
    enter "play long.wav"
    await playing
    is_hidden || fail "the cursor is not hidden"
    "$@"
    await "ended with $status"
    sees stopped || fail "the last line is gone"
    expect_restored
}
signal_player() { kill "-$1" "$(pid_of_job)"; }
# What runs in the terminal's shell.
pid_of_job() {
    ps -o pid= --ppid "$(on_tmux display-message -p '#{pane_pid}')" | awk 'NR == 1 { print $1 }'
}
case_terminal_is_restored_after_quit() { restores_after 0 keys q; }
case_terminal_is_restored_after_ctrl_c() { restores_after 130 keys C-c; }
case_terminal_is_restored_after_sigterm() { restores_after 143 signal_player TERM; }

case_terminal_is_restored_after_the_end() {
    tone tone.wav 1
    open_terminal 80
    enter "play nowhere.wav tone.wav"
    await "ended with 1"
    sees "^tovrel-play: nowhere.wav: Failed to open" || fail "no message"
    sees "^tone.wav 0:01 / 0:01 \[=*\] vol 100% done" || fail "the last line is gone"
    expect_restored
}

case_terminal_is_restored_while_suspended() {
    tone long.wav 60
    open_terminal 80
    stty_of() { enter "stty -a >$1; : >$1.done" && wait_for "$1" test -e "$1.done"; }
    stty_of before
    enter "\$player \$mode long.wav"
    await playing
    keys C-z
    await Stopped
    is_restored || fail "the cursor or the wrapping of lines is not restored"
    stty_of after
    diff before after || fail "other settings of the terminal than before"
    enter clear
    enter fg
    await playing
    is_hidden || fail "the cursor is not hidden again"
    local stopped
    stopped=$(position)
    wait_for "it to play on" position_is_over $((stopped + 1))
    keys q
    await stopped
    wait_for "the cursor and the wrapping of lines" is_restored
}

# ---- The live line and the keys ---------------------------------------------------------------

case_pause_freezes_the_position() {
    tone long.wav 60
    open_terminal 80
    enter "play long.wav"
    wait_for "it to play" position_is_over 1
    keys Space
    await paused
    local frozen
    frozen=$(line)
    sleep 1.3 # more than the line's smallest step
    [ "$(line)" = "$frozen" ] || fail "it went on: $frozen"
    keys Space
    await playing
    local paused
    paused=$(position)
    wait_for "it to play on" position_is_over $((paused + 1))
}

case_arrows_seek_five_seconds() {
    tone long.wav 60
    open_terminal 80
    enter "play long.wav"
    await playing
    keys Space
    await paused
    local begin
    begin=$(position)
    keys Right Right Right
    wait_for "three steps on" position_is $((begin + 15))
    keys Left
    wait_for "one step back" position_is $((begin + 10))
    keys Left Left Left
    wait_for "the beginning" position_is 0
    keys Right Right Space
    await playing
    wait_for "it to play on from there" position_is_over 11
}

case_seeking_past_the_end_plays_the_next_file() {
    tone one.wav 8
    tone two.wav 60
    open_terminal 80
    enter "play one.wav two.wav"
    await "one.wav.*playing"
    keys Right Right
    await "two.wav.*playing"
    sees "^one.wav 0:0[78] / 0:08 .* done" || fail "the line of the first file is gone"
}

case_volume_pan_and_equalizer_keys() {
    tone long.wav 60
    open_terminal 80
    enter "play --volume 0.5 --pan 0.1 --eq 1,0,0,0,0,0,0,0,0,0 long.wav"
    await "vol  50% pan R10 eq on"
    keys Up Up
    await "vol  60%"
    keys Down Down Down
    await "vol  45%"
    keys ']'
    await "pan R20"
    keys '[' '[' '['
    await "pan L10"
    keys e
    await "eq off"
    keys e
    await "eq on"
    for _ in $(seq 25); do keys Up; done
    await "vol 150%"
}

case_other_keys_do_nothing() {
    tone long.wav 60
    open_terminal 80
    enter "play long.wav"
    await playing
    keys Space
    await paused
    local begin
    begin=$(position)
    # Escape alone, keys that send longer sequences, and the ends of those as keys of their own.
    keys Home End PPage F5 C-Right M-q Escape x A D ä Down
    await "vol  95% paused"
    position_is "$begin" || fail "one of them moved the position"
}

case_start_shows_on_the_line() {
    tone long.flac 60
    open_terminal 80
    enter "play --start 30 long.flac"
    await "0:3[0-9] / 1:00 \[=* *\] vol 100% playing"
}

case_title_and_long_names_fit_every_width() {
    tone long.flac 60 -metadata artist=Künstler -metadata title=日本語の長い題名とそのつづきのことば
    open_terminal 80
    enter "play long.flac"
    await "^Künstler - 日.*0:0[0-9] / 1:00 \[=* *\] vol 100% playing"
    for columns in 40 20 200 61 80; do
        on_tmux resize-window -x "$columns" -y 24
        wait_for "a line for $columns columns" fits "$columns"
    done
    on_tmux resize-window -x 200 -y 24
    await "^Künstler - 日本語の長い題名とそのつづきのことば 0:.* / 1:00 \[=* *\] vol 100% playing"
}
# The live line is one row that ends in the state, nothing stands below it, and where there is room
# it takes all of it but the last column.
fits() {
    local row
    row=$(screen | grep -c 'Kün') || return 1
    [ "$row" -eq 1 ] && screen | sed '/^$/d' | tail -n 1 | grep -q '^Kün.*playing *$' || return 1
    [ "$1" -lt 40 ] || screen | grep -q 'Kün.*0:[0-9]* / 1:00.*playing$'
}

case_messages_are_not_cut_to_the_width() {
    tone tone.wav 1
    open_terminal 40
    enter "play tone.wav nowhere.wav"
    await "ended with 1"
    # The message begins below the line of the file before it, and goes on below itself.
    sees "^tone.wav .* done" || fail "the line of the file before is gone"
    local message="tovrel-play: nowhere.wav: Failed to open audio file: No such file"
    [[ $(screen | tr -d '\n') == *"$message"* ]] || fail "the message is cut"
}

case_no_keys_without_a_terminal_for_them() {
    tone long.wav 60
    open_terminal 80
    enter "play long.wav </dev/null"
    await playing
    keys q Space
    local now
    now=$(position)
    wait_for "it to play on" position_is_over $((now + 1))
    sees playing || fail "it took keys"
    keys C-c
    await "ended with 130"
    expect_restored
}

case_background_leaves_the_terminal_alone() {
    tone tone.wav 2
    open_terminal 80
    enter "\$player \$mode tone.wav & wait"
    await "^Playing tone.wav (0:02)"
    is_restored || fail "it took the terminal"
    await Done
}

case_dumb_terminal_gets_plain_lines() {
    tone tone.wav 1
    open_terminal 80
    enter "TERM=dumb play tone.wav"
    await "^Playing tone.wav (0:01)"
    await "ended with 0"
    expect_restored
}

# -----------------------------------------------------------------------------------------------

# shellcheck source=tests/program/radio_cases.sh
source "$tests/radio_cases.sh"
# shellcheck source=tests/program/screen_cases.sh
source "$tests/screen_cases.sh"
# shellcheck source=tests/program/script_cases.sh
source "$tests/script_cases.sh"
declare -F "case_$case" >/dev/null || fail "no such case"
"case_$case"
