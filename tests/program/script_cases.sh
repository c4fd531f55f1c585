# shellcheck shell=bash
# The cases of program_test.sh in which other programs use the player: folders and playlists, raw
# samples, recordings, lines of JSON, the session bus.
#
# SC2154, SC2034: what seems to be unset is set there, and what seems to be unused is used there.
# SC2016: what stands in single quotes is Perl's.
# shellcheck disable=SC2154,SC2034,SC2016

# ---- Sources ----------------------------------------------------------------------------------

case_folder_is_played_in_order() {
    mkdir -p music/b
    tone music/2.wav 0.3
    tone music/b/1.ogg 0.3
    tone music/1.flac 0.3
    echo 'no sound' >music/read.me
    play music
    expect_status 0
    expect_out "$(printf '%s\n' "Playing music/1.flac (0:00)" "Playing music/2.wav (0:00)" \
        "Playing music/b/1.ogg (0:00)")"
}

case_pattern_of_files() {
    tone a1.wav 0.3
    tone a2.wav 0.3
    tone b1.wav 0.3
    play 'a*.wav'
    expect_status 0
    expect_out "$(printf '%s\n' "Playing a1.wav (0:00)" "Playing a2.wav (0:00)")"
    play 'c*.wav'
    expect_status 1
    expect_err "tovrel-play: c*.wav: Failed to open audio file: No such file or directory"
}

case_xspf() {
    tone 'a b.wav' 0.3
    cat >list.xspf <<'END'
<?xml version="1.0" encoding="UTF-8"?>
<playlist version="1" xmlns="http://xspf.org/ns/0/"><trackList>
 <track><location>a%20b.wav</location></track>
 <track><location>missing.wav</location></track>
</trackList></playlist>
END
    play list.xspf
    expect_status 1
    expect_out "Playing a b.wav (0:00)"
    expect_err "tovrel-play: missing.wav: Failed to open audio file: No such file or directory"
}

case_shuffle_plays_each_once() {
    local i
    for i in 1 2 3 4 5; do tone "$i.wav" 0.2; done
    play --shuffle 1.wav 2.wav 3.wav 4.wav 5.wav
    expect_status 0
    [ "$(sort -u out | wc -l) $(wc -l <out)" = "5 5" ] || fail "not each once"
}

# ---- Raw samples ------------------------------------------------------------------------------

raw() { ffmpeg -nostdin -v error -i "$1" -f f32le -; }

case_standard_input_is_heard() {
    ffmpeg -nostdin -v error -f lavfi -i "anoisesrc=d=1:r=44100:seed=3" -c:a pcm_f32le noise.wav
    status=0
    raw noise.wav | "$program" --rate 44100 --channels 1 --record heard.wav - >out 2>err ||
        status=$?
    expect_status 0
    expect_out "Playing - (0:01)"
    cmp <(raw noise.wav) <(raw heard.wav) || fail "other samples"
}

case_empty_standard_input() {
    play -
    expect_status 1
    expect_err "tovrel-play: -: No PCM audio available for playback."
}

case_standard_input_that_never_ends() {
    mkfifo pipe
    exec 8<>pipe
    "$program" - >out 2>err <pipe &
    player=$!
    head -c 200000 /dev/zero >&8 # more than a pipe holds: it is being read
    stop INT
    expect_status 130
    [ "$took" -lt 2000 ] || fail "it took $took ms"
}

case_standard_input_that_never_runs_dry() {
    "$program" - </dev/zero >out 2>err &
    player=$!
    wait_for "what is read" has_read 10000000
    stop INT
    expect_status 130
    [ "$took" -lt 2000 ] || fail "it took $took ms"
}
has_read() { [ "$(awk '/^rchar/ { print $2 }' "/proc/$player/io")" -gt "$1" ]; }

case_standard_input_is_played_once() {
    head -c 96000 /dev/zero >zeros
    status=0
    "$program" --once --duration 20 --repeat - <zeros >out 2>err || status=$?
    expect_status 1
    expect_out "Playing - (0:00)"
    expect_err "tovrel-play: -: Standard input can be read only once."
}

# ---- Recordings -------------------------------------------------------------------------------

# Loudness, pan and rate are such that nothing is calculated but the centre's factor.
case_recording_is_what_was_played() {
    ffmpeg -nostdin -v error -f lavfi -i "anoisesrc=d=3:r=48000:a=0.5:seed=5" -ac 2 \
        -c:a pcm_f32le noise.wav
    play --record heard.wav noise.wav noise.wav
    expect_status 0
    expect_err ""
    cat <(raw noise.wav) <(raw noise.wav) >expected
    raw heard.wav >heard
    [ "$(stat -c %s heard)" -eq "$(stat -c %s expected)" ] || fail "another length"
    perl -e 'local $/; open my $a, "<", "heard"; open my $b, "<", "expected";
        my @a = unpack "f<*", <$a>; my @b = unpack "f<*", <$b>;
        abs($a[$_] - $b[$_]) < 1e-6 or die "another sample: $_\n" for 0 .. $#b' ||
        fail "other samples"
}

case_recording_as_flac() {
    tone tone.wav 1 -ar 48000
    play --record heard.flac tone.wav
    expect_status 0
    [ "$(ffprobe -v error -show_entries stream=codec_name,sample_rate,duration_ts -of csv=p=0 \
        heard.flac)" = flac,48000,48000 ] || fail "another file"
}

case_recording_of_radio() {
    serve
    source_of station
    play --no-input --duration 4 --record heard.wav "$radio/station"
    expect_status 0
    [ "$(stat -c %s heard.wav)" -gt 500000 ] || fail "next to nothing was recorded"
}

case_recording_that_cannot_be() {
    tone tone.wav 0.3
    play --record nowhere/heard.wav tone.wav
    expect_status 1
    expect_err "tovrel-play: nowhere/heard.wav: No such file or directory"
    play --record heard.mp3 tone.wav
    expect_status 2
    ln -s /dev/full full.wav
    play --record full.wav tone.wav
    expect_status 1
    grep -q '^tovrel-play: full.wav: ' err || fail "no word of it"
    tone long.wav 60
    start --record full.wav long.wav
    wait_for "the failure" grep -q '^tovrel-play: full.wav: The recording has ended' err
    stop INT
    expect_status 130
    [ "$(grep -c '^tovrel-play: full.wav: ' err)" -eq 2 ] || fail "no word of the reason"
}

case_recording_over_what_is_to_be_played() {
    tone tone.wav 0.3
    cp tone.wav copy.wav
    play --record ./tone.wav tone.wav
    expect_status 1
    expect_err "tovrel-play: ./tone.wav: It is to be played, and would be lost."
    play --record tone.wav .
    expect_status 1
    expect_err "tovrel-play: tone.wav: It is to be played, and would be lost."
    cmp tone.wav copy.wav || fail "it is lost"
}

case_recording_of_two_formats() {
    tone tone.wav 0.5 -ar 48000
    head -c 96000 /dev/zero >zeros
    status=0
    "$program" --record heard.wav --channels 1 tone.wav - <zeros >out 2>err || status=$?
    expect_status 1
    grep -q '^tovrel-play: heard.wav: [1-9][0-9]* blocks are missing.$' err || fail "no word of it"
    [ "$(ffprobe -v error -show_entries stream=sample_rate,channels,duration_ts -of csv=p=0 \
        heard.wav)" = 48000,2,24000 ] || fail "another file"
}

# ---- Time and JSON ----------------------------------------------------------------------------

case_duration_ends_it() {
    tone tone.wav 60
    local begin
    begin=$(date +%s%3N)
    play --duration 1.5 tone.wav
    expect_status 0
    local took=$(($(date +%s%3N) - begin))
    ((took >= 1400 && took < 6000)) || fail "it took $took ms"
}

# field NAME: of every line, where it has one
field() { perl -MJSON::PP -ne 'my $o = decode_json($_); print $o->{$ARGV[0] // ""} // "", "\n"' <out; }
events() { perl -MJSON::PP -ne 'my $o = decode_json($_);
    print join(" ", map { $_ // "null" } @$o{qw(event state title text)}), "\n"' <out; }

case_json_tells_what_happens() {
    tone song.flac 2.5 -metadata title=Song -metadata artist=Who
    play --json song.flac nowhere.wav
    expect_status 1
    events >told
    grep -qx 'state playing null null' told || fail "no word of playing"
    grep -qx 'title null Song null' told || fail "no title"
    [ "$(grep -c '^position' told)" -ge 3 ] || fail "too few positions"
    grep -qx 'state done null null' told || fail "no word of the end"
    grep -qx 'error null null Failed to open audio file: No such file or directory' told ||
        fail "no error"
    expect_err "tovrel-play: nowhere.wav: Failed to open audio file: No such file or directory"
}

case_json_tells_radio_titles() {
    serve
    source_of station -ice_name 'The Station'
    start --json "$radio/station"
    wait_for "the sound" grep -q '"state":"playing"' out
    title station First
    wait_for "the title" grep -q '"title":"First","station":"The Station"' out
    stop TERM
    expect_status 143
    events | tail -n 1 | grep -q '^state stopped' || fail "no word of the end"
}

case_json_tells_why_it_connects_again() {
    start --json "$(refusing_address)"
    wait_for "the reason" grep -q '"event":"error".*Connection refused' out
    stop TERM
    expect_status 143
}

case_json_that_nobody_reads_ends_in_time() {
    tone tone.wav 30
    mkfifo pipe
    exec 8<>pipe
    head -c 65536 /dev/zero >&8 # all that it holds
    timeout 20 "$program" --json --duration 1 tone.wav >pipe || fail "it does not end"
}

case_json_for_nobody_ends() {
    tone tone.wav 30
    status=0
    "$program" --json tone.wav 2>err | head -n 1 >out || status=${PIPESTATUS[0]}
    expect_status 141
}

case_no_input_reads_no_keys() {
    tone tone.wav 2
    mode=
    open_terminal 80 24
    enter 'play --no-input tone.wav'
    await 'playing'
    keys q
    await 'done'
    await 'ended with 0'
}

# ---- On the desktop ---------------------------------------------------------------------------

# with_bus: a session bus of this case's own.
with_bus() {
    dbus-daemon --session --nofork --nopidfile --address="unix:path=$dir/desktop" \
        --print-address >desktop.address 2>/dev/null & # once it listens
    servers+=("$!")
    wait_for "the bus" test -s desktop.address
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$dir/desktop
}
ask() { playerctl -p tovrel_play "$@"; }
answers() { [ "$(ask "${@:2}" 2>/dev/null)" = "$1" ]; }
await_answer() { wait_for "'$1' from ${*:2}" answers "$@"; }

case_desktop_sees_and_controls_it() {
    with_bus
    tone one.flac 30 -metadata title=One -metadata artist=Who -metadata album=All
    tone two.flac 30 -metadata title=Two
    start one.flac two.flac
    await_answer Playing status
    await_answer 'Who - All - One' metadata --format '{{artist}} - {{album}} - {{title}}'
    await_answer 30000000 metadata mpris:length
    await_answer "file://$dir/one.flac" metadata xesam:url
    ask pause
    await_answer Paused status
    ask position 20
    await_answer 20.000000 position
    ask position 3-
    await_answer 17.000000 position
    ask play-pause
    await_answer Playing status
    ask volume 0.5
    await_answer 0.500000 volume
    ask next
    await_answer Two metadata title
    ask previous
    await_answer One metadata title
    ask loop Playlist
    await_answer Playlist loop
    ask loop None
    ask shuffle On
    await_answer On shuffle
    ask stop
    status=0
    wait "$player" || status=$?
    player=
    expect_status 0
}
case_desktop_hears_of_changes() {
    with_bus
    tone one.flac 30 -metadata title=One
    tone two.flac 30 -metadata title=Two
    ask --follow metadata --format '{{status}} {{title}}' >followed 2>/dev/null &
    servers+=("$!")
    start one.flac two.flac
    wait_for "the first" grep -q 'Playing One' followed
    ask pause
    wait_for "the pause" grep -q 'Paused One' followed
    ask next
    wait_for "the second" grep -q 'Two' followed
    stop TERM
}

case_desktop_opens_what_it_is_given() {
    with_bus
    tone one.flac 30 -metadata title=One
    tone 'two ü.flac' 30 -metadata title=Two
    start one.flac
    await_answer One metadata title
    ask open "file://$dir/two%20%C3%BC.flac"
    await_answer Two metadata title
    stop TERM
}

case_desktop_is_told_no_broken_text() {
    with_bus
    tone tone.mp3 20
    server 'print $client "HTTP/1.0 200 OK\r\nContent-Type: audio/mpeg\r\n",
            "icy-name: Caf\xe9\r\n\r\n";
        open my $sound, "<", "tone.mp3" or die;
        local $/;
        print {$client} <$sound>;'
    start "$silent"
    await_answer Playing status
    await_answer 'Caf?' metadata title
    stop TERM
}

case_desktop_keeps_the_pause() {
    with_bus
    tone one.flac 30 -metadata title=One
    tone two.flac 30 -metadata title=Two
    start one.flac two.flac
    await_answer Playing status
    ask pause
    await_answer Paused status
    ask next
    await_answer Two metadata title
    await_answer Paused status
    [ "$(ask position | cut -d. -f1)" -eq 0 ] || fail "it plays"
    ask play
    await_answer Playing status
    stop TERM
}

case_desktop_has_room_for_two() {
    with_bus
    tone one.flac 30
    start one.flac
    await_answer Playing status
    "$program" one.flac >/dev/null 2>&1 &
    servers+=("$!")
    wait_for "the second player" two_players
    stop TERM
}
two_players() { [ "$(playerctl -l 2>/dev/null | grep -c '^tovrel_play')" -eq 2 ]; }

case_desktop_that_goes_is_no_loss() {
    with_bus
    tone one.flac 4
    start one.flac
    await_answer Playing status
    kill "${servers[0]}"
    status=0
    wait "$player" || status=$?
    player=
    expect_status 0
    expect_err ""
}

# ---- What is said of it -----------------------------------------------------------------------

case_options_are_told_everywhere() {
    play --help
    local option options manual=$tests/../../apps/tovrel-play
    mapfile -t options < <(grep -o -- '--[a-z-]*' out | sort -u)
    for option in "${options[@]}"; do
        grep -q -- "Fl -${option#--}" "$manual/tovrel-play.1" || fail "the manual lacks $option"
        grep -q -- "$option" "$manual/completions/tovrel-play.bash" || fail "bash lacks $option"
        grep -q -- "$option" "$manual/completions/_tovrel-play" || fail "zsh lacks $option"
        grep -q -- "-l ${option#--}" "$manual/completions/tovrel-play.fish" ||
            fail "fish lacks $option"
    done
}
