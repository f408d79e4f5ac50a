# shellcheck shell=bash
# The part of bench/web that is about velarto-fcgi; sourced by it, never run. The programs:
#   gateway        by the web server's way to run CGI programs; fcgiwrap under nginx
#   velarto-fcgi   with 64 threads
#   fcgi-floor     a FastCGI program of as many threads that only frames the protocol's messages
#   fcgi-pages     a FastCGI program of as many processes that makes the pages itself: no second hop
# Under "nginx-kept" nginx keeps its connections to them.
# shellcheck disable=SC2016,SC2034,SC2086,SC2154 # variables of bench/web and bench/lib.sh

fcgi_threads=64
fcgi_programs=(gateway velarto-fcgi fcgi-floor)

install_fcgi_packages() {
    install_packages prometheus-cpp-dev libmicrohttpd-dev libsystemd-dev libcli11-dev nlohmann-json3-dev
}

# ---- The programs under web servers ------------------------------------------------------------------------

start_fcgi_program() { # NAME COMMAND...: that listens on the socket of its name
    rm -f "$folder/run/$1"
    start "$@"
    wait_until test -S "$folder/run/$1" || die "no $1: $(cat "$folder/$1.log")"
}

start_velarto_fcgi() { # NAME THREADS
    start_fcgi_program "$1" env "VELARTO_PATH=$folder" "$folder/bin/velarto-fcgi" gateway \
        --listen "unix:$folder/run/$1" --threads "$2"
    velarto_fcgi=${web[-1]}
}

start_fcgi_programs() {
    install -D -t "$folder/bin" $build/fcgi/velarto-fcgi $build/bench/velarto-fcgi-{floor,pages}
    chmod 755 "$folder/bin"
    start_velarto_fcgi velarto-fcgi $fcgi_threads
    start_fcgi_program fcgi-floor "$folder/bin/velarto-fcgi-floor" "$folder/run/fcgi-floor" "$page_port" $fcgi_threads
}

# nginx_location PROGRAM KEPT: KEPT is on when nginx is to keep its connections to it, else off
nginx_location() {
    local keepalive=
    [[ $2 == off ]] || keepalive='keepalive 64;'
    echo "upstream $1 { server unix:$folder/run/$1; $keepalive }" >>"$folder/http-fcgi.conf"
    sed "s|@PROGRAM@|$1|; s|@KEPT@|$2|" bench/web-nginx-fcgi.conf >>"$folder/nginx-fcgi.conf"
}

start_fcgi_nginx() { # KEPT
    local program
    rm -f "$folder"/{http,nginx}-fcgi.conf
    start_fcgi_programs
    start_fcgi_program fcgi-pages "$folder/bin/velarto-fcgi-pages" --unix "$folder/run/fcgi-pages" \
        --workers $fcgi_threads
    for program in velarto-fcgi fcgi-floor fcgi-pages; do
        nginx_location "$program" "$1"
    done
    start_nginx
}

start_fcgi_apache() {
    start_fcgi_programs
    start_apache event -D fcgi
}

start_fcgi_lighttpd() {
    start_fcgi_programs
    start_lighttpd
}

measure_fcgi_requests() {
    loads=(8 64)
    programs=("${fcgi_programs[@]}" fcgi-pages)
    measure nginx start_fcgi_nginx off
    measure nginx-kept start_fcgi_nginx on
    programs=("${fcgi_programs[@]}")
    measure apache-event start_fcgi_apache
    measure lighttpd start_fcgi_lighttpd
    summarise gateway fcgi-floor >$results/fcgi.csv
    show tabulate <$results/fcgi.csv
    none_failed
}

# ---- Threads -----------------------------------------------------------------------------------------------

start_many_threads() {
    local program
    install -D -t "$folder/bin" $build/fcgi/velarto-fcgi
    rm -f "$folder"/{http,nginx}-fcgi.conf
    for program in "${programs[@]}"; do
        start_velarto_fcgi "$program" "${program#threads-}"
        nginx_location "$program" on
    done
    start_nginx
}

measure_fcgi_threads() {
    loads=(64)
    programs=(threads-1 threads-2 threads-4 threads-8 threads-16 threads-32 threads-64)
    rm -f "$folder/slices"
    measure nginx-kept start_many_threads
    echo | show cat
    summarise threads-1 threads-64 >$results/fcgi-threads.csv
    show tabulate <$results/fcgi-threads.csv
    none_failed
}

# ---- Large pages and bodies, and memory ------------------------------------------------------------------------

# transfer PROGRAM PATH [OPTION...]: prints how many seconds it takes
transfer() {
    curl -sSf --max-time 60 -o "$folder/arrived" -w '%{time_total}' "${@:3}" "$url/$1$2"
}

# resident: the memory that velarto-fcgi has resident, in kilobytes
resident() { awk '/^VmRSS:/ { print $2 }' "/proc/$velarto_fcgi/status"; }

# Medians of seconds, and the floor's in relation to velarto-fcgi's: its throughput in relation to the floor's.
summarise_transfers() {
    sort -t , -k 1,2 -k 3n "$folder/transfers" | awk -F , -v OFS=, '
        $1 OFS $2 != key { key = $1 OFS $2; count = 0; keys[++all] = key }
        { list[key, ++count] = $3; counts[key] = count; cases[$1] }
        END {
            for (i = 1; i <= all; i++) medians[keys[i]] = list[keys[i], int((counts[keys[i]] + 1) / 2)]
            print "case", "velarto-fcgi_s", "fcgi-floor_s", "throughput_to_floor"
            for (name in cases) {
                own = medians[name OFS "velarto-fcgi"]
                floor = medians[name OFS "fcgi-floor"]
                print name, own, floor, sprintf("%.2f", floor / own)
            }
        }'
}

measure_fcgi_transfers() {
    local round program
    say "measuring large pages and bodies"
    start_fcgi_nginx on
    wait_until curl -so "$folder/arrived" "$url/" || die "no nginx: $(cat "$folder/run/error.log")"
    head -c 10485760 /dev/zero >"$folder/body"
    for ((round = 0; round < $(rounds 20); round++)); do
        for program in velarto-fcgi fcgi-floor; do
            echo "100 MB in 32 KB pieces,$program,$(transfer "$program" /pieces/3200/32768)"
            echo "POST 10 MB,$program,$(transfer "$program" /sink --data-binary "@$folder/body")"
        done
    done >"$folder/transfers"
    stop_web
    summarise_transfers >$results/fcgi-transfers.csv
    show awk -F , 'NR == 1 { print "" } { printf "  %-24s %16s %16s %22s\n", $1, $2, $3, $4 }' $results/fcgi-transfers.csv
}

measure_fcgi_memory() {
    local requests=0 numbers limit
    say "measuring memory"
    start_fcgi_nginx on
    wait_until curl -so "$folder/arrived" "$url/" || die "no nginx: $(cat "$folder/run/error.log")"
    echo requests,resident_kb >$results/fcgi-memory.csv
    echo "0,$(resident)" >>$results/fcgi-memory.csv
    for limit in $(rounds 20000) $(rounds 100000) $(rounds 200000); do
        while ((requests < limit)); do
            numbers=$(measure_slice velarto-fcgi 64) || die "wrk: $numbers"
            requests=$((requests + ${numbers%%,*}))
        done
        echo "$requests,$(resident)" >>$results/fcgi-memory.csv
    done
    stop_web
    show awk -F , 'NR == 1 { print "" } { printf "  %10s %14s\n", $1, $2 }' $results/fcgi-memory.csv
}

# show COMMAND...: what it prints goes into the text for the eye, too
show() { "$@" | tee -a $results/fcgi.txt; }

measure_fcgi() {
    : >$results/fcgi.txt
    measure_fcgi_requests
    measure_fcgi_transfers
    measure_fcgi_memory
    measure_fcgi_threads
}
