# shellcheck shell=bash
# The cases of program_test.sh that play streams and playlists.
#
# SC2154: what seems to be unset is set there. SC2016: the dollars in quotes are Perl's.
# shellcheck disable=SC2154,SC2016

# ---- Servers ----------------------------------------------------------------------------------

# serve: an Icecast server at $radio, which also has the files in the directory web.
serve() {
    "$tests/../icecast/serve" "$dir" &
    servers+=("$!")
    wait_for "the server" test -e port
    radio=http://127.0.0.1:$(cat port)
}

# source_of MOUNT [FFMPEG ARGUMENT...]: a station that plays a tone; its process id in `source`.
source_of() {
    local mount=$1
    shift
    ffmpeg -nostdin -v error -re -f lavfi -i sine=1000:r=44100 -ac 2 -b:a 128k -f mp3 \
        -content_type audio/mpeg "$@" "icecast://source:hackme@${radio#http://}/$mount" &
    source=$!
    servers+=("$source")
    wait_for "the station" on_air "$mount"
}
on_air() { administer stats 2>/dev/null | grep -q "mount=\"/$1\""; }
end_source() {
    kill -KILL "$source"
    wait "$source" || true
}

# administer COMMAND: what the server answers.
administer() {
    perl -MIO::Socket::INET -e '
        my $server = IO::Socket::INET->new($ARGV[0]) or die;
        print $server "GET /admin/$ARGV[1] HTTP/1.0\r\nAuthorization: Basic YWRtaW46aGFja21l\r\n\r\n";
        print while <$server>' "${radio#http://}" "$1"
}
# title MOUNT TITLE, with plus signs for spaces
title() { administer "metadata?mount=/$1&mode=updinfo&song=$2" >/dev/null; }

# server PERL: answers with what the code prints to $client, which knows the $path that was asked
# for, and then keeps silent; its address in `silent`. Without code it never says a word.
server() {
    rm -f silent
    perl -MIO::Socket::INET -e '
        my $server = IO::Socket::INET->new(LocalAddr => "127.0.0.1", Listen => 10) or die;
        $| = 1;
        print $server->sockport, "\n";
        my @clients;
        while (my $client = $server->accept) {
            push @clients, $client;
            next if $ARGV[0] eq "";
            $client->autoflush;
            my ($path) = <$client> =~ / (\S*)/;
            while (<$client> =~ /\S/) {}
            eval $ARGV[0];
            die $@ if $@;
        }' "${1-}" >silent &
    servers+=("$!")
    wait_for "the server" test -s silent
    silent=http://127.0.0.1:$(cat silent)
}

# stalling_server FILE: sends it as a station would, and nothing more.
stalling_server() {
    server 'print $client "HTTP/1.0 200 OK\r\nContent-Type: audio/x-wav\r\n\r\n";
        open my $file, "<:raw", "'"$1"'" or die;
        print $client $_ while <$file>;'
}

# An address at which nobody listens.
refusing_address() {
    perl -MIO::Socket::INET -e \
        'print "http://127.0.0.1:", IO::Socket::INET->new(LocalAddr => "127.0.0.1")->sockport, "/x"'
}

says() { grep -q -- "$1" out; }
expect_soon() { [ "$took" -lt 1000 ] || fail "it took $took ms"; }

# ---- Streams ----------------------------------------------------------------------------------

case_stream_tells_its_story_in_plain_lines() {
    serve
    source_of live.mp3 -ice_name "Tovrel FM"
    start "$radio/live.mp3"
    wait_for "the station" says "^Playing $radio/live.mp3: Tovrel FM$"
    title live.mp3 Somebody+-+A+Song
    wait_for "the first title" says '^[0-2][0-9]:[0-5][0-9]:[0-5][0-9] Somebody - A Song$'
    title live.mp3 $'Tw\xf6%1b[2J'
    wait_for "the second title" says '^[0-2][0-9]:[0-5][0-9]:[0-5][0-9] Tw.*?\[2J$'
    end_source
    wait_for "the loss" says '^Reconnecting: retry 1/300: '
    wait_for "its reason" says \
        '^Reconnecting: retry [0-9]*/300: Failed to open radio stream: Server returned 404 Not Found$'
    source_of live.mp3 -ice_name "Tovrel FM again"
    wait_for "its return" says "^Playing $radio/live.mp3: Tovrel FM again$"
    stop INT
    expect_status 130
    expect_soon
    expect_err ""
    expect_plain
    [ "$(head -n 1 out)" = "Connecting to $radio/live.mp3" ] || fail "another first line"
    [ "$(grep -c ' Somebody - A Song$' out)" = 1 ] || fail "a title was told twice"
}

case_stream_shows_its_state_on_the_line() {
    serve
    source_of live.mp3 -ice_name "Tovrel FM"
    open_terminal 80
    enter "play $radio/live.mp3"
    await "^Tovrel FM  *0:0[1-9] vol 100% playing$"
    title live.mp3 Somebody+-+A+Song
    await "^[0-2][0-9]:[0-5][0-9]:[0-5][0-9] Somebody - A Song$"
    await "^Tovrel FM: Somebody - A Song  *0:[0-9]* vol 100% playing$"
    keys Space Right Down
    await "vol  95% paused$"
    keys Space Up
    await "vol 100% playing$"
    end_source
    await "^Tovrel FM: .* 0:[0-9]* vol 100% reconnecting [1-9][0-9]*/300$"
    await "^Tovrel FM: Failed to open radio st.* reconnecting [1-9][0-9]*/300$"
    source_of live.mp3 -ice_name "Tovrel FM"
    await "^Tovrel FM.* vol 100% playing$"
    keys q
    await "ended with 0"
    sees "^Tovrel FM.* 0:[0-9]* vol 100% stopped$" || fail "the last line is gone"
    [ "$(screen | grep -c '^[0-2][0-9]:')" = 1 ] || fail "not one line for one title"
    expect_restored
}

case_stream_is_heard() {
    serve
    source_of live.mp3
    pw-cat -r --target null-sink -P '{stream.capture.sink=true}' heard.wav 2>recorder.err &
    recorder=$!
    start "$radio/live.mp3"
    wait_for "the stream" says ^Playing
    local second
    second=$(stat -c %s heard.wav)
    wait_for "a second of it" test_size $((second + 400000))
    stop TERM
    kill -TERM "$recorder"
    wait "$recorder" || true
    recorder=
    peaks=$(ffmpeg -nostdin -i heard.wav -af astats=measure_overall=none -f null - 2>&1 |
        sed -n 's/.*Peak level dB: //p' | xargs printf '%.0f ')
    # -21 dB, and what the coding makes of it.
    [[ $peaks == -2[12]" "-2[12]" " ]] || fail "peaks of $peaks dB"
}

# stops_while WHAT ADDRESS: is told to end once WHAT is said.
stops_while() {
    start "$2"
    wait_for "'$1'" says "$1"
    sleep 0.3
    stop INT
    expect_status 130
    expect_soon
    expect_err ""
}
case_ctrl_c_while_a_server_does_not_answer() {
    server
    stops_while "^Connecting" "$silent/stream"
}
case_ctrl_c_while_a_server_refuses() { stops_while "^Connecting" "$(refusing_address)"; }
case_ctrl_c_while_it_waits_for_another_attempt() {
    serve
    stops_while "^Reconnecting: retry 1" "$radio/nothing"
}
case_ctrl_c_while_a_stream_stalls() {
    tone tone.wav 2
    stalling_server tone.wav
    stops_while "^Playing" "$silent/stream"
}
case_ctrl_c_while_a_playlist_does_not_come() {
    server
    start "$silent/list.m3u"
    wait_for "the start" caught_signals
    sleep 0.3
    stop INT
    expect_status 130
    expect_soon
}
case_ctrl_c_while_nobody_reads_its_output() {
    mkfifo pipe
    sleep 60 <>pipe &
    servers+=("$!")
    local names
    # Each is too long for a file's name, and all of them are more than a pipe holds.
    names=$(yes "$(printf 'x%.0s' {1..4000})" | head -n 40 || true)
    # shellcheck disable=SC2086 # the words are arguments
    "$program" $names >out 2>pipe </dev/null &
    player=$!
    wait_for "the pipe to be full" is_polling
    stop INT
    expect_status 130
    expect_soon
}
# Whether the player has been in the same wait for a while.
is_polling() {
    local before
    before=$(grep ctxt_switches "/proc/$player/status")
    sleep 1
    [ "$(grep ctxt_switches "/proc/$player/status")" = "$before" ]
}

# stops_on_a_terminal WORD: with Ctrl-C while the line says so.
stops_on_a_terminal() {
    await "$1"
    keys C-c
    await "ended with 130"
    sees "stopped" || fail "the last line is gone"
    expect_restored
}
case_ctrl_c_on_a_terminal_while_a_stream_plays() {
    serve
    source_of live.mp3
    open_terminal 80
    enter "play $radio/live.mp3"
    stops_on_a_terminal playing
}
case_ctrl_c_on_a_terminal_while_a_stream_is_paused() {
    serve
    source_of live.mp3
    open_terminal 80
    enter "play $radio/live.mp3"
    await playing
    keys Space
    stops_on_a_terminal paused
}
case_ctrl_c_on_a_terminal_while_a_stream_buffers() {
    tone tone.wav 0.65 -ar 48000 -c:a pcm_f32le
    stalling_server tone.wav
    open_terminal 80
    enter "play $silent/stream"
    stops_on_a_terminal buffering
}

case_stream_can_be_paused_before_it_plays() {
    server
    open_terminal 80
    # A file that never began leaves nothing of its --start to the stream.
    enter "play --start 5 missing.wav $silent/stream"
    await "0:00 vol 100% connecting$"
    keys Space
    await "0:00 vol 100% paused$"
    keys Space
    await "0:00 vol 100% connecting$"
    keys q
    await "ended with 1"
}

case_stream_that_cannot_be_decoded_is_told_of() {
    serve
    tone whole.wav 2 -c:a pcm_s24le
    head -c 200001 whole.wav >web/cut.wav # within a sample
    tone good.wav 0.3
    play "$radio/cut.wav" good.wav
    expect_status 1
    says "^Playing good.wav (0:00)$" || fail "the next file was not played"
    expect_err "tovrel-play: $radio/cut.wav: Radio decode failed: $invalid"
}

# ---- Playlists --------------------------------------------------------------------------------

case_playlist_files() {
    mkdir music
    for name in one two three four five; do tone "music/$name.wav" 0.2; done
    mv music/five.wav "five with%%zz%1z%00.wav" # what is no escape stands for itself
    printf '\xef\xbb\xbf#EXTM3U\r\n#EXTINF:1,One\r\none.wav\r\n\r\n%s/music/two.wav\r\n' "$dir" \
        >music/first.M3U
    printf '[playlist]\nFile10=%s\nTitle1=x\nfile2 = three.wav\nFile3=four.wav\nLength1=2\nFile1=%s' \
        "file://$dir/five%20with%25%zz%1z%00.wav" first.M3U >music/second.pls
    play music/second.pls
    expect_status 0
    expect_out "$(printf 'Playing %s (0:00)\n' music/one.wav "$dir/music/two.wav" music/three.wav \
        music/four.wav "$dir/five with%%zz%1z%00.wav")"
    expect_err ""
}

case_playlist_addresses() {
    serve
    source_of live.mp3
    printf '[playlist]\nFile1=/live.mp3\n' >web/stations.pls
    printf 'stations.pls\n' >web/list.m3u
    # The server makes the last one itself, and tells no length of it.
    for list in stations.pls "list.m3u?x=/y" live.mp3.m3u; do
        start "$radio/$list"
        wait_for "the stream" says "^Playing $radio/live.mp3$"
        stop INT
        expect_status 130
        expect_err ""
    done
}

case_playlist_that_has_moved() {
    server 'print $client $path eq "/list.m3u"
        ? "HTTP/1.0 302 Found\r\nLocation: /deep/down/list.m3u\r\nContent-Length: 0\r\n\r\n"
        : "HTTP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nlive.mp3\n";
        close $client;'
    start "$silent/list.m3u"
    wait_for "the stream" says "^Connecting to $silent/deep/down/live.mp3$"
    stop INT
}

case_segments_of_one_stream_are_no_playlist() {
    serve
    ffmpeg -nostdin -v error -f lavfi -i sine=d=8 -ac 2 -c:a aac -f hls -hls_list_size 0 \
        -hls_segment_filename web/part%d.ts web/stream.m3u8
    mv web/stream.m3u8 web/stream.m3u
    start "$radio/stream.m3u"
    wait_for "the stream" says "^Playing $radio/stream.m3u$"
    stop INT
    expect_status 130
    expect_err ""
}

case_playlists_from_servers_name_no_files() {
    serve
    tone tone.wav 0.3
    printf '%s\n' "file://$dir/tone.wav" "concat://$dir/tone.wav" "pipe://0" "subfile://x" \
        >web/list.m3u
    play "$radio/list.m3u"
    expect_status 1
    expect_out ""
    expect_err "tovrel-play: $radio/list.m3u: This playlist holds nothing to play."
}

case_playlist_files_name_no_devices() {
    printf '%s\n' "pipe://0" "FILE://localhost$dir/tone.wav" >list.m3u
    tone tone.wav 0.3
    play list.m3u
    expect_status 0
    expect_out "Playing $dir/tone.wav (0:00)"
}

# bad_list FILE TEXT
bad_list() {
    tone good.wav 0.2
    play "$1" good.wav
    expect_status 1
    expect_out "Playing good.wav (0:00)"
    expect_err "tovrel-play: $1: $2"
}
nothing="This playlist holds nothing to play."
case_missing_playlist() {
    bad_list none.pls "Failed to read the playlist: No such file or directory"
}
case_missing_playlist_address() {
    serve
    bad_list "$radio/none.pls" "Failed to read the playlist: Server returned 404 Not Found"
}
case_playlist_of_nothing() {
    printf '#EXTM3U\n\n' >empty.m3u
    bad_list empty.m3u "$nothing"
}
case_playlist_whose_address_names_no_file() {
    printf 'file://localhost\nfile://\n' >host.m3u
    bad_list host.m3u "$nothing"
}
case_playlist_that_is_music() {
    tone music.wav 0.3
    mv music.wav music.m3u
    bad_list music.m3u "$nothing"
}
case_playlist_without_an_end() {
    ln -s /dev/zero endless.m3u
    bad_list endless.m3u "This playlist is too long."
}
case_playlist_of_too_many() {
    yes a | head -n 10001 >many.m3u || true
    bad_list many.m3u "This playlist is too long."
}
case_playlist_that_names_itself() {
    echo a.m3u >a.m3u
    bad_list a.m3u "Too many playlists that name playlists."
}
case_playlists_that_name_each_other() {
    echo b.m3u >a.m3u
    echo a.m3u >b.m3u
    bad_list a.m3u "Too many playlists that name playlists."
}
