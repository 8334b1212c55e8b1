#!/bin/sh
# Runs one group of checks of the qxutil tool against the built program.
# usage: run_tests.sh QXUTIL SAMPLES-DIRECTORY GROUP
# Every check runs the tool as an operator would and compares its standard
# output, standard error and exit status with what they must be exactly.
set -u

QX=$1
DATA=$2
GROUP=$3

T=$(mktemp -d "${TMPDIR:-/tmp}/qxutil-test.XXXXXX") || exit 1
trap 'rm -rf "$T"' EXIT
mkdir "$T/tmp"
TMPDIR=$T/tmp
export TMPDIR

failures=0
checks=0
current=""

fail() {
    printf 'FAIL: %s: %s\n' "$current" "$*" >&2
    failures=$((failures + 1))
}

# Names the behaviour the following expectations check.
check() {
    current=$1
    checks=$((checks + 1))
}

# q ARGS...: runs the tool; stdout, stderr and status are kept.
q() {
    "$QX" "$@" >"$T/out" 2>"$T/err"
    status=$?
}

# q_in FILE ARGS...: the same with FILE as standard input.
q_in() {
    input=$1
    shift
    "$QX" "$@" <"$input" >"$T/out" 2>"$T/err"
    status=$?
}

compare() {
    if ! cmp -s "$T/want" "$T/$1"; then
        fail "std$1 is not as expected"
        diff -u "$T/want" "$T/$1" >&2
    fi
}

expect_status() {
    [ "$status" -eq "$1" ] || fail "exit status $status, expected $1"
}

# The output, one argument per line.
expect_lines() {
    if [ $# -eq 0 ]; then
        : >"$T/want"
    else
        printf '%s\n' "$@" >"$T/want"
    fi
    compare out
}

# The output, as the printf format given (for tabs and exact bytes).
expect_fmt() {
    # shellcheck disable=SC2059
    printf "$1" >"$T/want"
    compare out
}

expect_no_out() { expect_lines; }

# Standard error, one argument per line.
expect_err() {
    if [ $# -eq 0 ]; then
        : >"$T/want"
    else
        printf '%s\n' "$@" >"$T/want"
    fi
    compare err
}

expect_no_err() { expect_err; }

# A file's exact bytes, as a printf format.
expect_file() {
    # shellcheck disable=SC2059
    printf "$2" >"$T/want"
    if ! cmp -s "$T/want" "$1"; then
        fail "$1 does not hold what it should"
        diff -u "$T/want" "$1" >&2
    fi
}

# A usage error: status 2 and one line on standard error.
expect_usage_error() {
    expect_status 2
    expect_no_out
    expect_err "$1"
}

# Help: status 0, the usage line first on standard output, nothing on stderr.
expect_help() {
    expect_status 0
    expect_no_err
    head -n 1 "$T/out" >"$T/first"
    printf '%s\n' "$1" >"$T/want"
    if ! cmp -s "$T/want" "$T/first"; then
        fail "the help does not start with '$1'"
    fi
}

# The temporary copies of standard input are removed again.
expect_no_temporary_files() {
    if [ -n "$(ls -A "$T/tmp")" ]; then
        fail "temporary files were left behind: $(ls -A "$T/tmp")"
        rm -f "$T/tmp"/*
    fi
}

group_general() {
    check "no command prints the usage on standard error with status 2"
    q --help
    cp "$T/out" "$T/usage"
    q
    expect_status 2
    expect_no_out
    if ! cmp -s "$T/usage" "$T/err"; then
        fail "standard error is not the usage"
    fi

    check "an unknown command is a usage error naming it"
    q frobnicate
    expect_usage_error "qxutil: unknown command 'frobnicate' (see 'qxutil --help')"

    check "an unknown option of the tool is a usage error naming it"
    q --frobnicate
    expect_usage_error "qxutil: unknown option '--frobnicate' (see 'qxutil --help')"

    check "--help lists the commands"
    q --help
    expect_help "usage: qxutil COMMAND [ARGUMENTS...]"
    grep -q '^  run \[--timeout SECONDS\] -- PROGRAM \[ARGS...\]$' "$T/out" || fail "run is not listed"
    grep -q '124 when' "$T/out" || fail "the timeout status is not documented"

    check "--version names the tool and its version"
    q --version
    expect_status 0
    expect_no_err
    grep -qx 'qxutil [0-9][0-9]*\.[0-9][0-9]*\.[0-9][0-9]* (libqxcommon-util [0-9.]*)' "$T/out" ||
        fail "'$(cat "$T/out")' is not a version line"
    cp "$T/out" "$T/version"

    check "every command has --help, -h and --version"
    for command in "ini:usage: qxutil ini get FILE SECTION KEY [DEFAULT]" \
        "conf:usage: qxutil conf get FILE NAME" \
        "json:usage: qxutil json [-e] PATTERN [FILE]" \
        "run:usage: qxutil run [--timeout SECONDS] -- PROGRAM [ARGS...]" \
        "encode:usage: qxutil encode base64|base32|hex|url [FILE]" \
        "decode:usage: qxutil decode base64|base32|hex|url [FILE]" \
        "xml-escape:usage: qxutil xml-escape [--attr] [TEXT...]" \
        "os-release:usage: qxutil os-release [--file PATH] [KEY]" \
        "rfc3339:usage: qxutil rfc3339 [TIME]" \
        "pidfile:usage: qxutil pidfile PATH -- PROGRAM [ARGS...]"; do
        name=${command%%:*}
        current="$name --help prints its usage"
        q "$name" --help
        expect_help "${command#*:}"
        current="$name -h prints its usage"
        q "$name" -h
        expect_help "${command#*:}"
        current="$name --version prints the version"
        q "$name" --version
        expect_status 0
        cmp -s "$T/version" "$T/out" || fail "'$(cat "$T/out")' is not the version line"
    done

    check "help after a subcommand comes before its operands"
    q ini get --help
    expect_help "usage: qxutil ini get FILE SECTION KEY [DEFAULT]"

    check "an option after the operands is an operand"
    q ini get "$T/none.ini" section key --help
    expect_status 0
    expect_no_err
    expect_lines "--help"

    check "-- ends the options"
    printf '[server]\nhost = h1\n' >"$T/dashes.ini"
    q ini get -- "$T/dashes.ini" server host
    expect_status 0
    expect_no_err
    expect_lines "h1"

    check "an unknown option of a command is a usage error naming it"
    q ini get -x "$T/dashes.ini" server host
    expect_usage_error "qxutil ini get: unknown option '-x' (see 'qxutil ini --help')"
    q json --bogus "?"
    expect_usage_error "qxutil json: unknown option '--bogus' (see 'qxutil json --help')"

    check "a failed write to standard output is an error"
    if [ -w /dev/full ]; then
        printf 'foo' | "$QX" encode hex >/dev/full 2>"$T/err"
        status=$?
        expect_status 1
        expect_err "qxutil encode hex: cannot write to standard output: No space left on device"
        head -c 300000 /dev/zero | "$QX" encode base64 >/dev/full 2>"$T/err"
        status=$?
        expect_status 1
        expect_err "qxutil encode base64: cannot write to standard output: No space left on device"
    fi

    check "the manual page documents every exit status and the limit of run as it is"
    page=$DATA/../../man/qxutil.1.scd
    for code in 0 1 2 124 125 126 127; do
        grep -qx "\*$code\*" "$page" || fail "exit status $code is not documented"
    done
    grep -q 'closed its output' "$page" && fail "the page still promises a limit that starts when the output is closed"
    grep -q 'starts once output$' "$page" || fail "the page does not say when the limit starts"
    grep -q 'timeout\*(1)' "$page" || fail "the page does not compare run with timeout(1)"

    check "run documents the timeout status in its help"
    q run --help
    grep -q '124 when the time limit ran out' "$T/out" || fail "124 is not documented"
}

write_edge_ini() {
    # shellcheck disable=SC2016
    printf '%s\n' \
        'top = unnamed value' \
        '[Net]' \
        'key = value ; note' \
        'quoted = "a;b" ' \
        'escaped = "say \"hi\" now"' \
        'a:b=c' \
        'k: v' \
        'name = café' \
        '# comment = no' \
        '; other = no' \
        '[net]' \
        'key = second' \
        '[Empty]' \
        '=orphan' \
        'after = hidden' \
        '[]' \
        '[Later]' \
        'x = 1' >"$1"
}

group_ini() {
    ini=$T/edge.ini
    write_edge_ini "$ini"

    check "ini get cuts the value at a comment"
    q ini get "$ini" net key
    expect_status 0
    expect_lines "value"
    expect_no_err

    check "ini get keeps a semicolon inside double quotes and drops the quotes"
    q ini get "$ini" Net quoted
    expect_status 0
    expect_lines "a;b"

    check "ini get turns escaped double quotes into quotes"
    q ini get "$ini" net escaped
    expect_lines 'say "hi" now'

    check "ini get takes the first = as separator over an earlier colon"
    q ini get "$ini" net a:b
    expect_lines "c"

    check "ini get takes a colon as separator when there is no ="
    q ini get "$ini" net k
    expect_lines "v"

    check "ini get drops the bytes of a trailing UTF-8 character"
    q ini get "$ini" net name
    expect_lines "caf"

    check "ini get reads the unnamed section with an empty section name"
    q ini get "$ini" "" top
    expect_lines "unnamed value"

    check "ini get sees only the first of two sections with the same name"
    q ini get "$ini" NET key
    expect_lines "value"

    check "ini get does not find keys of comment lines"
    q ini get "$ini" net comment
    expect_status 1
    expect_no_out
    expect_err "qxutil ini get: no key 'comment' in section 'net' of $ini"

    check "ini get prints DEFAULT for a missing key"
    q ini get "$ini" net missing "fallback value"
    expect_status 0
    expect_lines "fallback value"
    expect_no_err

    check "ini get prints the value, not DEFAULT, when the key exists"
    q ini get "$ini" net key other
    expect_lines "value"

    check "ini get prints DEFAULT when the file does not exist"
    q ini get "$T/none.ini" net key "fallback"
    expect_status 0
    expect_lines "fallback"

    check "ini get without DEFAULT says when the file cannot be opened"
    q ini get "$T/none.ini" net key
    expect_status 1
    expect_no_out
    expect_err "qxutil ini get: cannot open $T/none.ini: No such file or directory"

    check "ini get finds a key after a line with an empty key"
    q ini get "$ini" empty after
    expect_lines "hidden"

    check "ini get reads standard input for -"
    q_in "$ini" ini get - net quoted
    expect_status 0
    expect_lines "a;b"
    expect_no_temporary_files

    check "ini sections lists the headers in order and stops at []"
    q ini sections "$ini"
    expect_status 0
    expect_lines "Net" "net" "Empty"
    expect_no_err

    check "ini sections reads standard input for -"
    q_in "$ini" ini sections -
    expect_lines "Net" "net" "Empty"
    expect_no_temporary_files

    check "ini sections of a missing file fails"
    q ini sections "$T/none.ini"
    expect_status 1
    expect_err "qxutil ini sections: cannot open $T/none.ini: No such file or directory"

    check "ini keys lists the key names of the first matching section"
    q ini keys "$ini" NET
    expect_status 0
    expect_lines "key" "quoted" "escaped" "a:b" "k" "name"

    check "ini keys stops at a line with an empty key"
    q ini keys "$ini" Empty
    expect_status 0
    expect_no_out

    check "ini keys of the unnamed section"
    q_in "$ini" ini keys - ""
    expect_lines "top"
    expect_no_temporary_files

    check "ini dump shows every section and key as the engine reads them"
    q ini dump "$ini"
    expect_status 0
    expect_lines "top=unnamed value" "[Net]" "key=value" "quoted=a;b" 'escaped=say "hi" now' \
        "a:b=c" "k=v" "name=caf" "[net]" "key=second" "[Empty]" "=orphan" "after=hidden" \
        "[]" "[Later]" "x=1"
    expect_no_err

    check "ini dump of the bundled sample"
    q ini dump "$DATA/relay.ini"
    expect_lines "[service]" "name=mail relay" "listen=0.0.0.0:2525" "workers=0x10" \
        "verbose=yes" "[limits]" "max_message_size=10485760" "greeting=Welcome; please be polite"

    check "ini dump reads standard input for -"
    q_in "$DATA/relay.ini" ini dump -
    expect_lines "[service]" "name=mail relay" "listen=0.0.0.0:2525" "workers=0x10" \
        "verbose=yes" "[limits]" "max_message_size=10485760" "greeting=Welcome; please be polite"
    expect_no_temporary_files

    check "ini dump of a missing file fails"
    q ini dump "$T/none.ini"
    expect_status 1
    expect_err "qxutil ini dump: cannot open $T/none.ini: No such file or directory"

    check "a line longer than 511 bytes is read in pieces"
    long=$(printf '%600s' "" | tr ' ' x)
    printf '[s]\nlong = %s\nnext = 1\n' "$long" >"$T/long.ini"
    q ini get "$T/long.ini" s long
    expect_lines "$(printf '%504s' "" | tr ' ' x)"
    q ini keys "$T/long.ini" s
    expect_lines "long" "next"

    check "ini set creates a new file with the section and the key"
    q ini set "$T/new.ini" net port 25
    expect_status 0
    expect_no_out
    expect_no_err
    expect_file "$T/new.ini" '[net]\nport=25\n'

    check "ini set replaces a value in place"
    printf '; head\n[net]\nport = 25 ; smtp\nhost=a\n' >"$T/set.ini"
    q ini set "$T/set.ini" NET port 587
    expect_status 0
    expect_file "$T/set.ini" '; head\n[net]\nport=587\nhost=a\n'

    check "ini set of the value a key already has leaves the file untouched"
    inode=$(stat -c %i "$T/set.ini")
    q ini set "$T/set.ini" net port 587
    expect_status 0
    [ "$(stat -c %i "$T/set.ini")" = "$inode" ] || fail "the file was rewritten"

    check "ini set appends a missing section after a line feed"
    printf '[a]\nx=1' >"$T/append.ini"
    q ini set "$T/append.ini" b y 2
    expect_status 0
    expect_file "$T/append.ini" '[a]\nx=1\n[b]\ny=2\n'

    check "ini set quotes a value with a semicolon and get reads it back"
    q ini set "$T/append.ini" b v "a;b"
    expect_file "$T/append.ini" '[a]\nx=1\n[b]\ny=2\nv="a;b"\n'
    q ini get "$T/append.ini" b v
    expect_lines "a;b"

    check "ini set quotes a value ending in a space, which reads back with it"
    q ini set "$T/append.ini" a s "x "
    expect_file "$T/append.ini" '[a]\nx=1\ns="x "\n[b]\ny=2\nv="a;b"\n'
    q ini get "$T/append.ini" a s
    expect_fmt 'x \n'

    check "ini delete removes one key line"
    q ini delete "$T/append.ini" A x
    expect_status 0
    expect_no_out
    expect_file "$T/append.ini" '[a]\ns="x "\n[b]\ny=2\nv="a;b"\n'

    check "ini delete removes a section with its comments and blank lines"
    printf '[a]\nx=1\n; note\n\n[b]\ny=2\n' >"$T/del.ini"
    q ini delete "$T/del.ini" a
    expect_status 0
    expect_file "$T/del.ini" '[b]\ny=2\n'

    check "ini delete of the unnamed section also removes the first header and its section"
    printf '[a]\nx=1\n[b]\ny=2\n' >"$T/unnamed.ini"
    q ini delete "$T/unnamed.ini" ""
    expect_status 0
    expect_file "$T/unnamed.ini" '[b]\ny=2\n'

    check "ini set under a header on the last line leaves an empty line before the key"
    printf '[a]\n' >"$T/last.ini"
    q ini set "$T/last.ini" a k v
    expect_file "$T/last.ini" '[a]\n\nk=v\n'

    check "ini set in an empty file starts with an empty line"
    : >"$T/zero.ini"
    q ini set "$T/zero.ini" s k v
    expect_file "$T/zero.ini" '\n[s]\nk=v\n'

    check "ini set keeps carriage returns and ends new lines with a line feed only"
    printf '[a]\r\nx=1\r\n' >"$T/crlf.ini"
    q ini set "$T/crlf.ini" a y 2
    expect_file "$T/crlf.ini" '[a]\r\nx=1\r\ny=2\n'

    check "ini delete in a missing file succeeds and creates nothing"
    q ini delete "$T/absent.ini" a x
    expect_status 0
    [ -e "$T/absent.ini" ] && fail "a file was created"

    check "ini set refuses standard input"
    q ini set - a b c
    expect_usage_error "qxutil ini set: cannot write to standard input (\"-\"); name a file (see 'qxutil ini --help')"

    check "ini delete refuses standard input"
    q ini delete - a
    expect_usage_error "qxutil ini delete: cannot write to standard input (\"-\"); name a file (see 'qxutil ini --help')"

    check "ini set fails when the file cannot be created"
    q ini set "$T/no/dir.ini" a b c
    expect_status 1
    expect_err "qxutil ini set: cannot write $T/no/dir.ini: No such file or directory"

    check "ini set and delete keep the file's mode"
    printf '[db]\npassword = old\n' >"$T/secret.ini"
    chmod 600 "$T/secret.ini"
    q ini set "$T/secret.ini" db password new
    expect_status 0
    expect_no_err
    expect_file "$T/secret.ini" '[db]\npassword=new\n'
    [ "$(stat -c %a "$T/secret.ini")" = 600 ] || fail "set made the mode $(stat -c %a "$T/secret.ini")"
    chmod 640 "$T/secret.ini"
    q ini delete "$T/secret.ini" db password
    expect_status 0
    expect_file "$T/secret.ini" '[db]\n'
    [ "$(stat -c %a "$T/secret.ini")" = 640 ] || fail "delete made the mode $(stat -c %a "$T/secret.ini")"
    chmod 2755 "$T/secret.ini"
    q ini set "$T/secret.ini" db user app
    expect_status 0
    [ "$(stat -c %a "$T/secret.ini")" = 2755 ] || fail "set made the mode $(stat -c %a "$T/secret.ini")"

    check "ini set keeps the file's owner"
    if [ "$(id -u)" = 0 ]; then
        printf '[a]\nx=1\n' >"$T/owned.ini"
        chown 65534:65534 "$T/owned.ini"
        q ini set "$T/owned.ini" a x 2
        expect_status 0
        expect_no_err
        [ "$(stat -c %u:%g "$T/owned.ini")" = 65534:65534 ] ||
            fail "the owner became $(stat -c %u:%g "$T/owned.ini")"
    fi

    check "ini set through a symbolic link edits the file it points to"
    mkdir "$T/etc"
    printf '[a]\nx=1\n' >"$T/etc/real.ini"
    chmod 600 "$T/etc/real.ini"
    ln -s etc/real.ini "$T/link.ini"
    ln -s "$T/link.ini" "$T/link2.ini"
    q ini set "$T/link2.ini" a x 2
    expect_status 0
    expect_no_err
    [ -L "$T/link.ini" ] && [ -L "$T/link2.ini" ] || fail "a link was replaced"
    expect_file "$T/etc/real.ini" '[a]\nx=2\n'
    [ "$(stat -c %a "$T/etc/real.ini")" = 600 ] || fail "the target's mode changed"
    [ -e "$T/etc/real.in~" ] && fail "the temporary file was left behind"

    check "ini set through a dangling link creates the file it points to"
    ln -s etc/new.ini "$T/dangling.ini"
    q ini set "$T/dangling.ini" s k v
    expect_status 0
    [ -L "$T/dangling.ini" ] || fail "the link was replaced"
    expect_file "$T/etc/new.ini" '[s]\nk=v\n'

    check "ini set writes a VALUE that looks like an option"
    printf '[a]\nx=1\n' >"$T/dash.ini"
    q ini set "$T/dash.ini" a x -h
    expect_status 0
    expect_no_out
    expect_file "$T/dash.ini" '[a]\nx=-h\n'

    check "ini set refuses a line feed or carriage return and writes nothing"
    q ini set "$T/dash.ini" a x "$(printf 'one\ntwo')"
    expect_usage_error "qxutil ini set: VALUE holds a line feed or carriage return (see 'qxutil ini --help')"
    q ini set "$T/dash.ini" a x "$(printf 'one\rtwo')"
    expect_usage_error "qxutil ini set: VALUE holds a line feed or carriage return (see 'qxutil ini --help')"
    q ini set "$T/dash.ini" a "$(printf 'k\nz')" 1
    expect_usage_error "qxutil ini set: KEY holds a line feed or carriage return (see 'qxutil ini --help')"
    q ini delete "$T/dash.ini" "$(printf 'a\nb')"
    expect_usage_error "qxutil ini delete: SECTION holds a line feed or carriage return (see 'qxutil ini --help')"
    expect_file "$T/dash.ini" '[a]\nx=-h\n'

    check "ini set refuses names that would not read back"
    q ini set "$T/dash.ini" "a]b" x 1
    expect_usage_error "qxutil ini set: SECTION holds \"]\", which would end its header early (see 'qxutil ini --help')"
    q ini set "$T/dash.ini" a "x=y" 1
    expect_usage_error "qxutil ini set: KEY holds \"=\", which would end the key early (see 'qxutil ini --help')"
    expect_file "$T/dash.ini" '[a]\nx=-h\n'

    check "ini set writes a line of 510 bytes whole and refuses a longer one"
    v507=$(printf '%507s' "" | tr ' ' v)
    q ini set "$T/dash.ini" a k "$v507"
    expect_status 0
    q ini get "$T/dash.ini" a k
    expect_lines "$v507"
    q ini set "$T/dash.ini" a k "${v507}v"
    expect_usage_error "qxutil ini set: KEY and VALUE make a line longer than 510 bytes (see 'qxutil ini --help')"
    # Quoted, with the inner quote escaped: k="vvv...\"" is 510 bytes.
    v503=$(printf '%503s' "" | tr ' ' v)
    q ini set "$T/dash.ini" a q "${v503}\""
    expect_status 0
    q ini get "$T/dash.ini" a q
    expect_lines "${v503}\""
    q ini set "$T/dash.ini" a q "${v503}v\""
    expect_usage_error "qxutil ini set: KEY and VALUE make a line longer than 510 bytes (see 'qxutil ini --help')"
    q ini get "$T/dash.ini" a k
    expect_lines "$v507"

    check "ini set and delete refuse a directory"
    mkdir "$T/dir.ini"
    q ini set "$T/dir.ini" a b c
    expect_status 1
    expect_no_out
    expect_err "qxutil ini set: $T/dir.ini is a directory"
    q ini delete "$T/dir.ini" a
    expect_status 1
    [ -d "$T/dir.ini" ] || fail "the directory is gone"

    check "ini reading a directory says so"
    q ini get "$T/dir.ini" a b
    expect_status 1
    expect_no_out
    expect_err "qxutil ini get: $T/dir.ini is a directory"
    q ini dump "$T/dir.ini"
    expect_status 1
    expect_err "qxutil ini dump: $T/dir.ini is a directory"

    check "ini get names a missing section"
    q ini get "$ini" nosuch key
    expect_status 1
    expect_no_out
    expect_err "qxutil ini get: no section 'nosuch' in $ini"

    check "ini keys of a missing section fails"
    q ini keys "$ini" nosuch
    expect_status 1
    expect_no_out
    expect_err "qxutil ini keys: no section 'nosuch' in $ini"

    check "ini keys reads a pipe, which the engine opens once per key"
    mkfifo "$T/fifo.ini"
    # Bounded, so that a reader that opens the pipe twice cannot hang here.
    timeout 30 sh -c 'printf "[s]\na=1\nb=2\nc=3\n" >"$1"' sh "$T/fifo.ini" &
    timeout 30 "$QX" ini keys "$T/fifo.ini" s >"$T/out" 2>"$T/err"
    status=$?
    wait
    expect_status 0
    expect_lines "a" "b" "c"
    expect_no_temporary_files

    check "ini without a subcommand is a usage error"
    q ini
    expect_usage_error "qxutil ini: missing subcommand (get, set, delete, sections, keys or dump) (see 'qxutil ini --help')"

    check "ini with an unknown subcommand is a usage error"
    q ini list "$ini"
    expect_usage_error "qxutil ini: unknown subcommand 'list' (see 'qxutil ini --help')"

    check "ini get without FILE is a usage error"
    q ini get
    expect_usage_error "qxutil ini get: missing FILE; usage: qxutil ini get FILE SECTION KEY [DEFAULT] (see 'qxutil ini --help')"

    check "ini get without KEY is a usage error"
    q ini get "$ini" net
    expect_usage_error "qxutil ini get: missing arguments; usage: qxutil ini get FILE SECTION KEY [DEFAULT] (see 'qxutil ini --help')"

    check "ini set with too many arguments is a usage error"
    q ini set "$ini" a b c d
    expect_usage_error "qxutil ini set: too many arguments; usage: qxutil ini set FILE SECTION KEY VALUE (see 'qxutil ini --help')"
}

group_conf() {
    check "conf get prints a value of the bundled sample"
    q conf get "$DATA/relay.conf" queue_dir
    expect_status 0
    expect_lines "/var/spool/qxdemo"
    expect_no_err

    check "conf get trims the name and the value"
    q conf get "$DATA/relay.conf" service
    expect_lines "mail relay"

    check "conf get ignores a line whose value holds ="
    q conf get "$DATA/relay.conf" banner
    expect_status 1
    expect_no_out
    expect_err "qxutil conf get: no name 'banner' in $DATA/relay.conf"

    printf '# comment = x\n  spaced  =  v w  \nName = first\nName = second\nempty =\n' >"$T/c.conf"

    check "conf get lets the first of two equal names win"
    q conf get "$T/c.conf" Name
    expect_lines "first"

    check "conf get compares names case-sensitively"
    q conf get "$T/c.conf" name
    expect_status 1
    expect_err "qxutil conf get: no name 'name' in $T/c.conf"

    check "conf get skips comment lines"
    q conf get "$T/c.conf" "# comment"
    expect_status 1

    check "conf get prints an empty value as an empty line"
    q conf get "$T/c.conf" empty
    expect_status 0
    expect_lines ""

    check "conf get trims a line with inner blanks kept"
    q conf get "$T/c.conf" spaced
    expect_lines "v w"

    check "conf get reads standard input for -"
    q_in "$T/c.conf" conf get - spaced
    expect_status 0
    expect_lines "v w"
    expect_no_temporary_files

    check "conf get of a missing file fails"
    q conf get "$T/none.conf" a
    expect_status 1
    expect_no_out
    expect_err "qxutil conf get: cannot open $T/none.conf: No such file or directory"

    check "conf get of a directory says so"
    q conf get "$T" a
    expect_status 1
    expect_no_out
    expect_err "qxutil conf get: $T is a directory"

    check "conf without a subcommand is a usage error"
    q conf
    expect_usage_error "qxutil conf: missing subcommand (get) (see 'qxutil conf --help')"

    check "conf with an unknown subcommand is a usage error"
    q conf set a b
    expect_usage_error "qxutil conf: unknown subcommand 'set' (see 'qxutil conf --help')"

    check "conf get without NAME is a usage error"
    q conf get "$T/c.conf"
    expect_usage_error "qxutil conf get: missing arguments; usage: qxutil conf get FILE NAME (see 'qxutil conf --help')"
}

group_json() {
    services=$DATA/services.json

    check "json prints one line per combination, inner arrays fastest"
    q json "{'site': ?, 'services': [{'name': ?, 'listen': [?]}]}" "$services"
    expect_status 0
    expect_fmt 'fra-2\tsmtp\t25\nfra-2\tsmtp\t587\nfra-2\timap\t143\nfra-2\timap\t993\nfra-2\tdns\t53\nfra-2\tbackup\t\n'
    expect_no_err

    check "json gives one step for a pattern without arrays"
    q json "{'limits': {'connections': ?, 'workers': ?}}" "$services"
    expect_fmt '4096\t16\n'

    check "json prints objects and arrays as compact JSON"
    q json "{'limits': ?, 'services': [{'listen': ?}]}" "$services"
    expect_fmt '{"connections":4096,"workers":"16"}\t[25,587]\n{"connections":4096,"workers":"16"}\t[143,993]\n{"connections":4096,"workers":"16"}\t[53]\n{"connections":4096,"workers":"16"}\t[]\n'

    check "json gives every combination of sibling arrays, the last fastest"
    printf '{"a": [1, 2], "b": ["x", "y", "z"]}' >"$T/ab.json"
    q json "{'a': [?], 'b': [?]}" "$T/ab.json"
    expect_fmt '1\tx\n1\ty\n1\tz\n2\tx\n2\ty\n2\tz\n'

    check "json gives one step with an empty field for an empty array"
    printf '[]' >"$T/empty-array.json"
    q json "[?]" "$T/empty-array.json"
    expect_status 0
    expect_fmt '\n'

    check "json leaves the field of a missing member empty"
    q json "{'nope': ?, 'site': ?}" "$services"
    expect_fmt '\tfra-2\n'

    check "json ignores text after the root pattern and keeps slot 0 empty for ?1"
    printf '[1]' >"$T/one.json"
    q json "?1 ?" "$T/one.json"
    expect_fmt '\t[1]\n'

    check "json prints integers whole, beyond 32 bits"
    printf '{"n": 4294967297, "m": -5}' >"$T/big.json"
    q json "{'n': ?, 'm': ?}" "$T/big.json"
    expect_fmt '4294967297\t-5\n'

    check "json prints other values as words and escapes tabs in strings"
    printf '{"t": true, "f": false, "n": null, "d": 1.5, "s": "a\\tb\\\\c\\nd"}' >"$T/types.json"
    q json "{'t': ?, 'f': ?, 'n': ?, 'd': ?, 's': ?}" "$T/types.json"
    expect_fmt 'true\tfalse\tnull\t1.5\ta\\tb\\\\c\\nd\n'

    check "json reads standard input for -"
    q_in "$T/ab.json" json "{'b': [?]}" -
    expect_status 0
    expect_fmt 'x\ny\nz\n'

    check "json of a document that does not parse fails and says why"
    printf '{"a": ' >"$T/bad.json"
    q json "?" "$T/bad.json"
    expect_status 1
    expect_no_out
    expect_err "qxutil json: $T/bad.json is not a JSON document: 1:0: Unexpected end of input"
    printf '{"a" 1}' >"$T/bad2.json"
    q json "?" "$T/bad2.json"
    expect_status 1
    expect_err "qxutil json: $T/bad2.json is not a JSON document: 1:0: Expected : before 1"

    check "json of standard input that does not parse fails and says why"
    q_in "$T/bad.json" json "?" -
    expect_status 1
    expect_err "qxutil json: standard input is not a JSON document: 1:0: Unexpected end of input"

    check "json of an empty file says it is empty"
    : >"$T/empty.json"
    q json "?" "$T/empty.json"
    expect_status 1
    expect_no_out
    expect_err "qxutil json: $T/empty.json is empty, not a JSON document"
    q_in "$T/empty.json" json "?"
    expect_status 1
    expect_err "qxutil json: standard input is empty, not a JSON document"

    check "json of a directory says so"
    q json "?" "$T"
    expect_status 1
    expect_no_out
    expect_err "qxutil json: $T is a directory"

    check "json reads standard input without FILE"
    q_in "$T/ab.json" json "{'a': [?]}"
    expect_status 0
    expect_fmt '1\n2\n'

    check "json reads a pipe, which the library cannot map"
    cat "$T/ab.json" | "$QX" json "{'b': [?]}" /dev/stdin >"$T/out" 2>"$T/err"
    status=$?
    expect_status 0
    expect_no_err
    expect_fmt 'x\ny\nz\n'

    check "json -e makes a missing member status 1 and names its placeholder"
    q json -e "{'site': ?, 'nope': ?}" "$services"
    expect_status 1
    expect_fmt 'fra-2\t\n'
    expect_err "qxutil json: no value for ?1 in step 1"
    q json --exit-status "{'services': [{'name': ?, 'listen': [?]}]}" "$services"
    expect_status 1
    expect_err "qxutil json: no value for ?1 in step 6"

    check "json -e takes null as a value and passes when every placeholder has one"
    printf '{"a": null, "b": [1]}' >"$T/null.json"
    q json -e "{'a': ?, 'b': [?]}" "$T/null.json"
    expect_status 0
    expect_no_err
    expect_fmt 'null\t1\n'

    check "json of a missing file fails"
    q json "?" "$T/none.json"
    expect_status 1
    expect_err "qxutil json: cannot open $T/none.json: No such file or directory"

    check "json with a pattern that does not parse is a usage error"
    q json "{}" "$services"
    expect_usage_error "qxutil json: the pattern '{}' does not parse (see 'qxutil json --help')"

    check "json with a placeholder outside the slots is a usage error"
    q json "{'a': ?3, 'b': ?1}" "$services"
    expect_usage_error "qxutil json: the pattern '{'a': ?3, 'b': ?1}' does not parse (see 'qxutil json --help')"

    check "json without PATTERN is a usage error"
    q json
    expect_usage_error "qxutil json: missing arguments; usage: qxutil json [-e] PATTERN [FILE] (see 'qxutil json --help')"

    check "json with two files is a usage error"
    q json "?" "$services" "$services"
    expect_usage_error "qxutil json: too many arguments; usage: qxutil json [-e] PATTERN [FILE] (see 'qxutil json --help')"
}

group_run() {
    check "run passes on output, error output and exit status"
    q run -- /bin/sh -c 'printf "out\n"; printf "err\n" >&2; exit 3'
    expect_status 3
    expect_lines "out"
    expect_err "err"

    check "run passes on output as the library collects it: a NUL byte ends its chunk"
    q run -- /bin/sh -c 'printf "a\\000b"'
    expect_status 0
    expect_fmt 'a'

    check "run looks a program without a slash up on PATH"
    q run -- sh -c 'echo found'
    expect_status 0
    expect_lines "found"
    expect_no_err

    check "run takes PROGRAM without --"
    q run sh -c 'exit 7'
    expect_status 7

    check "run passes on status 255"
    q run -- sh -c 'exit 255'
    expect_status 255

    check "run reports a program ended by a signal with status 0"
    q run -- sh -c 'kill -TERM $$'
    expect_status 0
    expect_no_err

    check "run gives the program /dev/null as standard input"
    printf 'not for the child\n' >"$T/input"
    q_in "$T/input" run -- /bin/cat
    expect_status 0
    expect_no_out

    check "run with a time limit passes on a program that ends in time"
    q run --timeout 30 -- sh -c 'echo quick'
    expect_status 0
    expect_lines "quick"

    check "run kills a program that outlives its time limit and says so"
    # The child closes its output (and the inherited pipe ends), so the
    # limit starts at once; it would sleep for 60 seconds.
    q run --timeout=1 -- /bin/sh -c 'exec >/dev/null 2>&1; for fd in 3 4 5 6 7 8 9; do eval "exec $fd>&-"; done; sleep 60'
    expect_status 124
    expect_no_out
    expect_err "qxutil run: /bin/sh did not finish within the time limit of 1 second and was killed"

    check "run writes all of standard output first, then standard error, after the end"
    "$QX" run -- /bin/sh -c 'printf "1 err\n" >&2; printf "2 out\n"; printf "3 err\n" >&2' >"$T/out" 2>&1
    status=$?
    expect_status 0
    expect_lines "2 out" "1 err" "3 err"

    check "run states the library's rules beside timeout(1) in its help"
    q run --help
    for phrase in 'standard input from /dev/null, always' 'input is not passed on' \
        'after it has ended, all of standard output first' \
        'starts only once output collection has ended' 'after 30 seconds without output' \
        'Unlike timeout(1)' 'signal gives status 0'; do
        grep -qF "$phrase" "$T/out" || fail "the help does not say '$phrase'"
    done

    check "run says why a program could not be started and exits with 125"
    # With no descriptor left for the output pipe the start fails at once;
    # descriptor 3 stays free for the loader (and the leak checker's exit).
    (
        for fd in 3 4 5 6 7 8 9; do eval "exec $fd>&-"; done
        ulimit -n 4 && exec "$QX" run -- /bin/true
    ) >"$T/out" 2>"$T/err"
    status=$?
    expect_status 125
    expect_no_out
    expect_err "qxutil run: /bin/true could not be started: Too many open files"

    check "run of a program not on PATH fails with 127"
    q run -- qxutil-no-such-program
    expect_status 127
    expect_no_out
    expect_err "qxutil run: qxutil-no-such-program: command not found"

    check "run of a missing path fails with 127"
    q run -- "$T/missing/prog"
    expect_status 127
    expect_err "qxutil run: $T/missing/prog: No such file or directory"

    check "run without PROGRAM is a usage error"
    q run --
    expect_usage_error "qxutil run: missing PROGRAM (see 'qxutil run --help')"

    check "run with a bad time limit is a usage error"
    q run --timeout soon -- true
    expect_usage_error "qxutil run: --timeout: 'soon' is not a number of seconds (see 'qxutil run --help')"

    check "run with --timeout but no number is a usage error"
    q run --timeout
    expect_usage_error "qxutil run: --timeout needs a number of SECONDS (see 'qxutil run --help')"

    check "run with an unknown option is a usage error"
    q run --fast -- true
    expect_usage_error "qxutil run: unknown option '--fast' (see 'qxutil run --help')"

    check "run passes --help after -- on to the program"
    q run -- /bin/sh -c 'printf "%s\n" "$1"' sh --help
    expect_status 0
    expect_lines "--help"
}

# A file of every byte value, twice over, and some more random bytes.
make_binary() {
    i=0
    while [ $i -lt 256 ]; do
        # shellcheck disable=SC2059
        printf "\\$(printf '%03o' $i)"
        i=$((i + 1))
    done >"$1.part"
    cat "$1.part" "$1.part" >"$1"
    head -c "$2" /dev/urandom >>"$1"
    rm -f "$1.part"
}

group_codec() {
    printf 'foobar' >"$T/foobar"
    printf 'fo' >"$T/fo"
    printf 'f' >"$T/f"

    check "encode base64 pads with ="
    q_in "$T/foobar" encode base64
    expect_status 0
    expect_lines "Zm9vYmFy"
    expect_no_err
    q_in "$T/fo" encode base64
    expect_lines "Zm8="
    q_in "$T/f" encode base64
    expect_lines "Zg=="

    check "encode base32 writes no padding"
    q_in "$T/foobar" encode base32
    expect_lines "MZXW6YTBOI"
    q_in "$T/f" encode base32
    expect_lines "MY"

    check "encode hex writes two lower-case digits per byte"
    q_in "$T/foobar" encode hex
    expect_lines "666f6f626172"

    check "encode url keeps letters, digits and -._~ only"
    printf 'a b/c~-._Z9\n' >"$T/url"
    q_in "$T/url" encode url
    expect_lines "a%20b%2fc~-._Z9%0a"

    check "encode url writes a NUL byte as %00 and goes on"
    printf 'a\000b' >"$T/nul"
    q_in "$T/nul" encode url
    expect_status 0
    expect_lines "a%00b"

    check "encode reads a FILE argument, and - as standard input"
    q encode base64 "$T/foobar"
    expect_status 0
    expect_lines "Zm9vYmFy"
    q_in "$T/fo" encode hex -
    expect_lines "666f"

    check "encode of an empty input is an empty line"
    : >"$T/nothing"
    q_in "$T/nothing" encode base64
    expect_status 0
    expect_lines ""

    check "encode of a missing file fails"
    q encode base64 "$T/none"
    expect_status 1
    expect_no_out
    expect_err "qxutil encode base64: cannot open $T/none: No such file or directory"

    check "encode of a directory fails"
    q encode hex "$T"
    expect_status 1
    expect_err "qxutil encode hex: cannot read $T: Is a directory"

    check "encode with two files is a usage error"
    q encode hex "$T/f" "$T/fo"
    expect_usage_error "qxutil encode hex: too many arguments; usage: qxutil encode hex [FILE] (see 'qxutil encode --help')"

    check "encode base64 gives what base64 -w 0 gives, across chunks"
    make_binary "$T/bin" 200000
    q encode base64 "$T/bin"
    expect_status 0
    base64 -w 0 "$T/bin" >"$T/want"
    echo >>"$T/want"
    compare out

    check "every codec round-trips binary data byte for byte"
    for codec in base64 base32 hex url; do
        current="$codec round-trips binary data"
        "$QX" encode $codec "$T/bin" | "$QX" decode $codec >"$T/out" 2>"$T/err"
        status=$?
        expect_status 0
        expect_no_err
        cmp -s "$T/bin" "$T/out" || fail "the bytes differ"
        current="$codec round-trips an empty input"
        "$QX" encode $codec "$T/nothing" | "$QX" decode $codec >"$T/out" 2>"$T/err"
        status=$?
        expect_status 0
        expect_no_out
    done

    check "encode url then decode url adds no line feed"
    printf 'a b' | "$QX" encode url | "$QX" decode url >"$T/out"
    expect_fmt 'a b'

    check "decode base64 writes exactly the bytes"
    printf 'Zm9vYmFy' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 0
    expect_fmt 'foobar'
    printf 'Zm8=' >"$T/b64"
    q decode base64 "$T/b64"
    expect_fmt 'fo'

    check "decode base64 reads base64's wrapped output whole"
    head -c 200 "$T/bin" >"$T/bin200"
    base64 "$T/bin200" >"$T/wrapped"
    q decode base64 "$T/wrapped"
    expect_status 0
    expect_no_err
    cmp -s "$T/bin200" "$T/out" || fail "the 200 bytes did not come back"

    check "decode base64 takes padded groups one after the other"
    printf 'YQ==YQ==\n' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 0
    expect_fmt 'aa'

    check "decode base64 refuses what is not Base64, with status 1"
    printf 'not*valid' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_no_out
    expect_err "qxutil decode base64: invalid Base64 input: '*' is not part of the encoding at byte 4"
    printf 'Zm9v YmFy' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_fmt 'foo'
    expect_err "qxutil decode base64: invalid Base64 input: ' ' is not part of the encoding at byte 5"
    printf 'YWJj\r\n' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_err "qxutil decode base64: invalid Base64 input: byte 0x0d is not part of the encoding at byte 5"

    check "decode base64 refuses an incomplete last group"
    printf 'abc' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_no_out
    expect_err "qxutil decode base64: invalid Base64 input: ends inside a group"
    printf 'YQ=' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_err "qxutil decode base64: invalid Base64 input: ends inside a group"

    check "decode base64 refuses misplaced padding"
    printf 'Y===' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_err "qxutil decode base64: invalid Base64 input: '=' before the group has two characters at byte 2"
    printf 'YQ=a' >"$T/b64"
    q_in "$T/b64" decode base64
    expect_status 1
    expect_err "qxutil decode base64: invalid Base64 input: 'a' after the padding at byte 4"

    check "decode base32 takes either case, the padding, white space and -"
    printf 'mzxw6ytboi' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_status 0
    expect_fmt 'foobar'
    printf 'MZXW6YTBOI======\n' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_fmt 'foobar'
    printf 'MZ-XW 6\n' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_fmt 'foo'

    check "decode base32 refuses a character outside the alphabet"
    printf 'MZX!' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_status 1
    expect_no_out
    expect_err "qxutil decode base32: invalid Base32 input: '!' is not part of the encoding at byte 4"

    check "decode base32 refuses cut padding and a last group that makes no byte"
    printf 'MY=' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_status 1
    expect_err "qxutil decode base32: invalid Base32 input: ends inside a group"
    printf 'MZXW6YTBO' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_status 1
    expect_fmt 'fooba'
    expect_err "qxutil decode base32: invalid Base32 input: ends inside a group"
    printf 'MZX=====' >"$T/b32"
    q_in "$T/b32" decode base32
    expect_status 1
    expect_err "qxutil decode base32: invalid Base32 input: '=' completes a group with the wrong padding at byte 8"

    check "decode hex takes either case and refuses anything else"
    printf '666F6f\n' >"$T/hex"
    q_in "$T/hex" decode hex
    expect_status 0
    expect_fmt 'foo'
    printf 'zz' >"$T/hex"
    q_in "$T/hex" decode hex
    expect_status 1
    expect_no_out
    expect_err "qxutil decode hex: invalid hex input: 'z' is not part of the encoding at byte 1"
    printf '666f6g' >"$T/hex"
    q_in "$T/hex" decode hex
    expect_status 1
    expect_fmt 'fo'
    expect_err "qxutil decode hex: invalid hex input: 'g' is not part of the encoding at byte 6"

    check "decode hex refuses an odd number of digits"
    printf '666' >"$T/hex"
    q_in "$T/hex" decode hex
    expect_status 1
    expect_fmt 'f'
    expect_err "qxutil decode hex: invalid hex input: has an odd number of digits"

    check "decode url turns %XX and + into bytes"
    printf 'a%%20b+c%%2F\n' >"$T/u"
    q_in "$T/u" decode url
    expect_status 0
    expect_fmt 'a b c/'

    check "decode url fails on a % without two hex digits"
    printf 'a%%4' >"$T/u"
    q_in "$T/u" decode url
    expect_status 1
    expect_no_out
    expect_err "qxutil decode url: invalid URL input: a \"%\" needs two hex digits"

    check "decode url refuses a NUL byte"
    printf 'a\000b' >"$T/u"
    q_in "$T/u" decode url
    expect_status 1
    expect_err "qxutil decode url: invalid URL input: byte 0x00 cannot stand in URL text at byte 2"

    check "encode without a codec is a usage error"
    q encode
    expect_usage_error "qxutil encode: missing codec (base64, base32, hex or url) (see 'qxutil encode --help')"

    check "decode with an unknown codec is a usage error"
    q decode rot13 x
    expect_usage_error "qxutil decode: unknown codec 'rot13' (base64, base32, hex or url) (see 'qxutil decode --help')"

    check "xml-escape escapes markup and keeps quotes"
    q xml-escape "a<b & c" "\"'"
    expect_status 0
    expect_lines "a&lt;b &amp; c \"'"
    expect_no_err

    check "xml-escape --attr also escapes quotes, tab and line feed"
    q xml-escape --attr "$(printf 'say "hi"\tit'"'"'s\nok')"
    expect_status 0
    expect_no_err
    expect_lines "say &quot;hi&quot;&#9;it&apos;s&#10;ok"

    check "xml-escape takes text after -- as it is"
    q xml-escape -- -
    expect_lines "-"
    q xml-escape -- --attr
    expect_lines "--attr"

    check "xml-escape writes UTF-8 as a hex character reference"
    q xml-escape "é"
    expect_lines "&#xE9;"

    check "xml-escape writes a carriage return as &#13; and drops a vertical tab"
    printf 'a\rb\vc\td\n' >"$T/ctl"
    q_in "$T/ctl" xml-escape
    expect_fmt 'a&#13;bc\td\n\n'

    check "xml-escape writes a stray byte as a decimal reference and loses the next one"
    printf '\303A\251' >"$T/stray"
    q_in "$T/stray" xml-escape -
    expect_lines "&#195;&#169;"

    check "xml-escape refuses a NUL byte"
    q_in "$T/nul" xml-escape
    expect_status 1
    expect_no_out
    expect_err "qxutil xml-escape: standard input holds a NUL byte, which XML cannot carry"
}

# The codecs stream: 40 MB go through encode and decode under a limit of
# 16 MiB of address space, which the input alone would exceed. Left out of
# sanitizer builds, which reserve far more address space than that.
group_codec_memory() {
    check "encode and decode keep their memory bounded"
    (
        ulimit -v 16384 || exit 3
        head -c 40000000 /dev/zero | "$QX" encode base64 | "$QX" decode base64 | wc -c
    ) >"$T/out" 2>"$T/err"
    status=$?
    expect_status 0
    expect_no_err
    expect_lines 40000000
}

group_os_release() {
    check "os-release prints every pair in file order, quotes removed"
    q os-release --file "$DATA/os-release"
    expect_status 0
    expect_lines 'PRETTY_NAME=QX Linux 3 (quartz)' 'NAME=QX Linux' 'VERSION_ID=3' \
        'VERSION_CODENAME=quartz' 'ID=qxlinux'
    expect_no_err

    check "os-release KEY compares ignoring case"
    q os-release --file="$DATA/os-release" version_codename
    expect_status 0
    expect_lines "quartz"

    check "os-release of a missing key fails"
    q os-release --file "$DATA/os-release" BUILD_ID
    expect_status 1
    expect_no_out
    expect_err "qxutil os-release: no key 'BUILD_ID' in $DATA/os-release"

    check "os-release skips lines without = or starting with a space and keeps the last line's quotes"
    printf 'A=1\n B=2\nnothing\nC='"'"'single'"'"'\nD=a=b\nE="x"' >"$T/os"
    q os-release --file "$T/os"
    expect_lines "A=1" "C=single" "D=a=b" 'E="x"'

    check "os-release of an unreadable file fails"
    q os-release --file "$T/none"
    expect_status 1
    expect_err "qxutil os-release: cannot read $T/none: No such file or directory"

    check "os-release of a directory says so"
    q os-release --file "$T"
    expect_status 1
    expect_no_out
    expect_err "qxutil os-release: $T is a directory"

    check "os-release reads standard input for --file -"
    q_in "$DATA/os-release" os-release --file - VERSION_ID
    expect_status 0
    expect_no_err
    expect_lines "3"
    expect_no_temporary_files

    check "os-release of an empty file fails"
    : >"$T/empty-os"
    q os-release --file "$T/empty-os"
    expect_status 1
    expect_no_out
    expect_err "qxutil os-release: no KEY=value line in $T/empty-os"

    check "os-release reads /etc/os-release by default"
    if [ -r /etc/os-release ]; then
        q os-release
        expect_status 0
        expect_no_err
    fi

    check "os-release with two keys is a usage error"
    q os-release a b
    expect_usage_error "qxutil os-release: too many arguments; usage: qxutil os-release [--file PATH] [KEY] (see 'qxutil os-release --help')"

    check "os-release --file without PATH is a usage error"
    q os-release --file
    expect_usage_error "qxutil os-release: --file needs a PATH (see 'qxutil os-release --help')"

    check "os-release with an unknown option is a usage error"
    q os-release --all
    expect_usage_error "qxutil os-release: unknown option '--all' (see 'qxutil os-release --help')"
}

group_rfc3339() {
    check "rfc3339 writes Z for UTC"
    TZ=UTC q rfc3339 0
    expect_status 0
    expect_lines "1970-01-01T00:00:00Z"
    expect_no_err

    check "rfc3339 writes a positive offset"
    TZ=UTC-2 q rfc3339 86400
    expect_lines "1970-01-02T02:00:00+02:00"

    check "rfc3339 writes a negative offset with minutes"
    TZ="<-0330>3:30" q rfc3339 0
    expect_lines "1969-12-31T20:30:00-03:30"

    check "rfc3339 takes a time before the epoch"
    TZ=UTC q rfc3339 -1
    expect_lines "1969-12-31T23:59:59Z"

    check "rfc3339 defaults to now"
    before=$(date -u +%s)
    TZ=UTC q rfc3339
    after=$(date -u +%s)
    expect_status 0
    printed=$(cat "$T/out")
    ok=0
    for t in $(seq "$before" "$after"); do
        [ "$(date -u -d "@$t" +%Y-%m-%dT%H:%M:%SZ)" = "$printed" ] && ok=1
    done
    [ $ok -eq 1 ] || fail "'$printed' is not the current time"

    check "rfc3339 with a TIME that is not a number is a usage error"
    q rfc3339 12x
    expect_usage_error "qxutil rfc3339: TIME '12x' is not a number of seconds since the epoch (see 'qxutil rfc3339 --help')"

    check "rfc3339 takes a negative time after -- too"
    TZ=UTC q rfc3339 -- -1
    expect_status 0
    expect_lines "1969-12-31T23:59:59Z"

    check "rfc3339 with an unknown option is a usage error"
    q rfc3339 --utc
    expect_usage_error "qxutil rfc3339: unknown option '--utc' (see 'qxutil rfc3339 --help')"

    check "rfc3339 with two times is a usage error"
    q rfc3339 1 2
    expect_usage_error "qxutil rfc3339: too many arguments; usage: qxutil rfc3339 [TIME] (see 'qxutil rfc3339 --help')"
}

group_pidfile() {
    check "pidfile writes the PID of the program it then becomes"
    q pidfile "$T/a.pid" -- /bin/sh -c 'echo $$; cat "$1"' sh "$T/a.pid"
    expect_status 0
    expect_no_err
    pid=$(head -n 1 "$T/out")
    case $pid in
    '' | *[!0-9]*) fail "'$pid' is not a PID" ;;
    esac
    expect_lines "$pid" "$pid"
    expect_file "$T/a.pid" "$pid\\n"
    [ "$(stat -c %a "$T/a.pid")" = 644 ] || fail "the mode is not 0644"

    check "pidfile passes on the program's status and takes it without --"
    q pidfile "$T/b.pid" sh -c 'exit 5'
    expect_status 5
    expect_no_err

    check "pidfile leaves a file naming a running process alone and runs nothing"
    printf '%s\n' $$ >"$T/live.pid"
    q pidfile "$T/live.pid" -- touch "$T/ran"
    expect_status 1
    expect_no_out
    expect_err "qxutil pidfile: $T/live.pid names a process that is still running; left as it is"
    expect_file "$T/live.pid" "$$\\n"
    [ -e "$T/ran" ] && fail "the program ran"

    check "pidfile replaces a file holding no number"
    printf 'garbage\n' >"$T/stale.pid"
    q pidfile "$T/stale.pid" -- /bin/sh -c 'echo $$'
    expect_status 0
    expect_file "$T/stale.pid" "$(cat "$T/out")\\n"

    check "pidfile replaces a file naming a process that is gone"
    sh -c 'exit 0' &
    gone=$!
    wait "$gone"
    printf '%s\n' "$gone" >"$T/gone.pid"
    q pidfile "$T/gone.pid" -- /bin/sh -c 'echo $$'
    expect_status 0
    expect_file "$T/gone.pid" "$(cat "$T/out")\\n"

    check "pidfile fails when the file cannot be written"
    q pidfile "$T/no/dir.pid" -- true
    expect_status 1
    expect_err "qxutil pidfile: cannot write $T/no/dir.pid: No such file or directory"

    check "pidfile of a program not found writes nothing and exits with 127"
    q pidfile "$T/c.pid" -- qxutil-no-such-program
    expect_status 127
    expect_no_out
    expect_err "qxutil pidfile: qxutil-no-such-program: command not found"
    [ -e "$T/c.pid" ] && fail "the PID file was written"

    check "pidfile of a program that cannot be executed writes nothing and exits with 126"
    printf 'echo no\n' >"$T/noexec"
    chmod 644 "$T/noexec"
    if [ "$(id -u)" != 0 ] || [ ! -x "$T/noexec" ]; then
        q pidfile "$T/d.pid" -- "$T/noexec"
        expect_status 126
        expect_err "qxutil pidfile: $T/noexec: Permission denied"
        [ -e "$T/d.pid" ] && fail "the PID file was written"
    fi

    check "pidfile refuses -"
    q pidfile - -- true
    expect_usage_error "qxutil pidfile: cannot write a PID file to standard output (\"-\"); name a file (see 'qxutil pidfile --help')"

    check "pidfile without PATH or PROGRAM is a usage error"
    q pidfile
    expect_usage_error "qxutil pidfile: missing PATH; usage: qxutil pidfile PATH -- PROGRAM [ARGS...] (see 'qxutil pidfile --help')"
    q pidfile "$T/e.pid"
    expect_usage_error "qxutil pidfile: missing PROGRAM; usage: qxutil pidfile PATH -- PROGRAM [ARGS...] (see 'qxutil pidfile --help')"
    q pidfile "$T/e.pid" --
    expect_usage_error "qxutil pidfile: missing PROGRAM; usage: qxutil pidfile PATH -- PROGRAM [ARGS...] (see 'qxutil pidfile --help')"
    [ -e "$T/e.pid" ] && fail "the PID file was written"
}

case $GROUP in
general | ini | conf | json | run | codec | codec_memory | os_release | rfc3339 | pidfile) "group_$GROUP" ;;
*)
    echo "run_tests.sh: unknown group '$GROUP'" >&2
    exit 2
    ;;
esac

if [ "$failures" -ne 0 ]; then
    echo "$failures of $checks checks of group $GROUP failed" >&2
    exit 1
fi
echo "all $checks checks of group $GROUP passed"
