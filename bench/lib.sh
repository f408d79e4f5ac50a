# shellcheck shell=bash
# Shared by the scripts in bench/; sourced, never run. Leaves the shell in the project's folder.

# shellcheck source=scripts/lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib.sh"

build=build/bench
results=$build/results

# ---- Preparation -----------------------------------------------------------------------------------------

# read_options ARGUMENT... sets $quick, $save and $install
# shellcheck disable=SC2034 # $install is for the scripts
read_options() {
    quick=no save='' install=yes
    while (($# > 0)); do
        case $1 in
        --quick) quick=yes ;;
        --save)
            save=${2:?--save needs a folder}
            shift
            ;;
        --no-install) install=no ;;
        *) die "unknown argument '$1'; usage: $0 [--quick] [--save FOLDER] [--no-install]" ;;
        esac
        shift
    done
}

# rounds NUMBER: that many, or a tenth of them
rounds() {
    if [[ $quick == yes ]]; then echo $((($1 + 9) / 10)); else echo "$1"; fi
}

# build_targets FOLDER TARGETS [OPTION...]
build_targets() {
    say "building $2 in $1"
    quietly cmake -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELARTO_BUILD_BENCH=ON -DVELARTO_BUILD_ADMIN=OFF \
        -DVELARTO_BUILD_TESTS=OFF -DVELARTO_BUILD_DEVSERVER=OFF -DVELARTO_BUILD_CONFORM=OFF -DVELARTO_BUILD_FCGI=OFF \
        "${@:3}" || die "cannot configure"
    # shellcheck disable=SC2086 # several targets
    cmake --build "$1" --target $2 -- --quiet || die "cannot build"
}

# ---- Servers ---------------------------------------------------------------------------------------------

folder=$(mktemp -d)
started=()
clean_up() {
    local process
    for process in "${started[@]}"; do
        kill "$process" 2>/dev/null || true
        wait "$process" 2>/dev/null || true
    done
    rm -rf "$folder"
}
trap clean_up EXIT
trap 'exit 130' INT TERM HUP

# start_server PROGRAM: one that says which port it has; it is in $port then
start_server() {
    local log=$folder/$1.log turn
    : >"$log" # there is something to read from the first turn on
    "$build/bench/$1" >"$log" 2>&1 </dev/null &
    started+=($!)
    for ((turn = 0; turn < 200; turn++)); do
        port=$(sed -n 's/.* listening on .*://p' "$log")
        [[ -z $port ]] || return 0
        sleep 0.05
    done
    die "no $1: $(cat "$log")"
}

# ---- Measuring -------------------------------------------------------------------------------------------

# What a web server hands to a CGI program; method, path and body are the case's.
cgi_variables=(
    PATH=/usr/local/bin:/usr/bin:/bin
    GATEWAY_INTERFACE=CGI/1.1
    SERVER_SOFTWARE='Apache/2.4 (Debian)'
    SERVER_SIGNATURE=
    SERVER_NAME=www.example.com
    SERVER_ADDR=192.0.2.80
    SERVER_PORT=80
    SERVER_PROTOCOL=HTTP/1.1
    SERVER_ADMIN=webmaster@example.com
    DOCUMENT_ROOT=/var/www/html
    REQUEST_SCHEME=http
    REQUEST_URI='/cgi-bin/shop/page?colour=green&size=12'
    QUERY_STRING='colour=green&size=12'
    SCRIPT_FILENAME=/usr/lib/cgi-bin/shop
    SCRIPT_NAME=/cgi-bin/shop
    PATH_TRANSLATED=/var/www/html/page
    REMOTE_ADDR=192.0.2.17
    REMOTE_PORT=50412
    HTTP_HOST=www.example.com
    HTTP_USER_AGENT='Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0'
    HTTP_ACCEPT='text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8'
    HTTP_ACCEPT_LANGUAGE='en-GB,en;q=0.5'
    HTTP_ACCEPT_ENCODING='gzip, deflate'
    HTTP_CONNECTION=keep-alive
    HTTP_REFERER=http://www.example.com/
    HTTP_COOKIE='session=0123456789abcdef'
)

# page NAME ROUNDS PATH [VARIABLE=VALUE...] and post NAME ROUNDS BYTES [...]: a line of the plan
page() { echo "case $1 $(rounds "$2") 0 REQUEST_METHOD=GET PATH_INFO=$3 ${*:4}"; }
post() {
    echo "case $1 $(rounds "$2") $3 REQUEST_METHOD=POST PATH_INFO=/sink CONTENT_LENGTH=$3" \
        "CONTENT_TYPE=application/octet-stream ${*:4}"
}

# compare CSV [VARIABLE=VALUE...] <PLAN
compare() {
    timeout --foreground 900 env -i "${cgi_variables[@]}" "${@:2}" $build/bench/velarto-compare "$1"
}

# write_configuration FOLDER SERVERS: the client's section alone
write_configuration() {
    mkdir -p "$1/configuration"
    printf '[Velarto Client Definitions]\nvelarto-cgi=\n\n[velarto-cgi]\nVELARTO_SERVER=%s\n' "$2" \
        >"$1/configuration/clients.ini"
}

# report NAME: says where the results are, and copies them where they are wanted
report() {
    local files=("$results/$1".*)
    say "results: ${files[*]}"
    if [[ -n $save ]]; then
        mkdir -p "$save"
        cp "${files[@]}" "$save/"
    fi
}
