#!/usr/bin/env bash
# run_all.sh BUILD_DIR: runs every comparison and prints a Markdown table of
# medians and ratios on standard output (progress on standard error). Run by
# scripts/bench. The benchmark programs that touch fixed paths enter the
# private sandbox themselves; the extraction commands write only below a
# temporary folder of /dev/shm (a tmpfs) and BUILD_DIR/bench (a disk).
#
# Environment: BENCH_ROUNDS (extraction rounds into the tmpfs, default 7),
# BENCH_DISK_ROUNDS (into the disk folder, default 3), BENCH_REPS
# (Google Benchmark repetitions, default 7), BENCH_LOAD_SECONDS (default
# 10), BENCH_ARCHIVE_MB (default 100; the memory check also uses 4 times
# it, and the package check unpacks one of that size). The raw results are kept in BUILD_DIR/bench/raw.
set -euo pipefail
build=$1
bin=$build/bench
here=$(cd "$(dirname "$0")" && pwd)
rounds=${BENCH_ROUNDS:-7}
disk_rounds=${BENCH_DISK_ROUNDS:-3}
reps=${BENCH_REPS:-7}
load_seconds=${BENCH_LOAD_SECONDS:-10}
archive_mb=${BENCH_ARCHIVE_MB:-100}
raw=$build/bench/raw
rm -rf "$raw" && mkdir -p "$raw"
say() { echo "bench: $*" >&2; }

scratch=$(mktemp -d /dev/shm/tarn_bench.XXXXXX)
disk=$build/bench/extract_disk
trap 'rm -rf "$scratch" "$disk"' EXIT
tmpfs=$scratch/extract
archives=$scratch/archives
mkdir -p "$archives" "$disk"
[ "$(stat -f -c %T "$scratch")" = tmpfs ] || { say "/dev/shm is not a tmpfs"; exit 1; }
[ "$(stat -f -c %T "$disk")" != tmpfs ] || say "warning: $disk is on a tmpfs, not a disk"

# --- Archives --------------------------------------------------------------
small=$archives/small.tgz large=$archives/large.tgz
say "making a ${archive_mb} MB and a $((archive_mb * 4)) MB archive from /usr/include"
"$here/make_archive.sh" "$archive_mb" "$small"
"$here/make_archive.sh" $((archive_mb * 4)) "$large"
unpacked_mb() { "$bin/gzread_floor" "$1" | awk '{ printf "%.0f", $1 / 1e6 }'; }
small_mb=$(unpacked_mb "$small") large_mb=$(unpacked_mb "$large")
small_files=$(tar -tzf "$small" | grep -vc '/$')

# --- Extraction: rounds of the four commands, one run each, interleaved ----
# Interleaving gives each command the same share of a shared machine's
# noise; the medians are over the rounds.
extract_round() {  # folder json
  hyperfine -N --runs 1 --style none --export-json "$2" \
    --prepare "sh -c 'rm -rf $1 && mkdir -p $1'" \
    -n floor "$bin/gzread_floor $small" \
    -n write_floor "$bin/write_floor $small $1" \
    -n untgz_file "$bin/untgz_cli $small $1" \
    -n bsdtar "bsdtar -xzf $small -C $1" \
    -n tar "tar -xzf $small -C $1" >/dev/null
}
for where in tmpfs disk; do
  folder=$tmpfs n=$rounds
  [ $where = disk ] && folder=$disk n=$disk_rounds
  say "extraction into $where ($folder): $n rounds after one warm-up"
  extract_round "$folder" "$raw/warmup_$where.json"
  for r in $(seq "$n"); do extract_round "$folder" "$raw/extract_${where}_$r.json"; done
  rm -rf "$folder"
done
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "nan"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
# extract_median WHERE NAME FIELD: FIELD is wall (seconds), cpu (user +
# system), user or system
extract_median() {
  for f in "$raw"/extract_"$1"_*.json; do
    jq -r --arg n "$2" --arg k "$3" '.results[] | select(.command == $n) |
      if $k == "wall" then .median elif $k == "cpu" then .user + .system else .[$k] end' "$f"
  done | median
}

# --- Peak memory -------------------------------------------------------------
peak_kb() {  # archive -> max RSS of untgz_cli in KB
  rm -rf "$tmpfs" && mkdir -p "$tmpfs"
  /usr/bin/time -f %M -o "$raw/rss" "$bin/untgz_cli" "$1" "$tmpfs"
  rm -rf "$tmpfs"
  cat "$raw/rss"
}
say "peak memory"
rss_small=$(peak_kb "$small") rss_large=$(peak_kb "$large")

# --- Google Benchmark programs -------------------------------------------------
gbench() {  # program json [flags...]
  local program=$1 json=$2
  shift 2
  say "$program"
  "$bin/$program" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_format=json --benchmark_out_format=json --benchmark_out="$raw/$json" "$@" >/dev/null
}
gbench bench_heartbeat heartbeat.json
gbench bench_log log.json
mkdir -p "$build/bench/apphome_root" && rm -rf "${build:?}/bench/apphome_root/"*
gbench bench_apphome apphome.json --disk_root="$build/bench/apphome_root"
rm -rf "${build:?}/bench/apphome_root"
gbench bench_parse parse.json
gbench bench_glock glock.json
# gb FILE NAME [cpu]: the median real (or CPU) time of benchmark NAME, in
# nanoseconds
gb() {
  jq -r --arg n "$2" --arg k "${3:-real}_time" '.benchmarks[] |
    select(.run_name == $n and .aggregate_name == "median") |
    .[$k] * ({"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[.time_unit])' "$raw/$1"
}

# Package verification: tarn_package_verify (Google Benchmark) and
# sha256sum -c over the same files (hyperfine), both reading from the page
# cache: the benchmark's own first iterations and a warm-up run fill it.
pkg=$build/bench/verify_package
rm -rf "$pkg" "$pkg.sha256"
gbench bench_package_verify package_verify.json --package="$pkg" --package_mb="$archive_mb"
say "sha256sum -c over the same files"
hyperfine -N --warmup 1 --runs "$reps" --style none --export-json "$raw/sha256sum.json" \
  "sha256sum -c --quiet $pkg.sha256" >/dev/null
pkg_mb=$(du -sm --apparent-size "$pkg" | cut -f1) pkg_files=$(wc -l <"$pkg.sha256")
rm -rf "$pkg" "$pkg.sha256"

# Load runs, WORKERS:PACE_MS: 63 workers with the service and the supervisor
# flat out, then calling every 100 ms; then one worker, so that the
# processes do not outnumber the CPUs.
load_runs="63:0 63:100 1:0"
for run in $load_runs; do
  say "heartbeat load: ${run%:*} workers and the service, a supervisor, pace ${run#*:} ms, ${load_seconds} s"
  "$bin/bench_heartbeat_load" --workers="${run%:*}" --pace_ms="${run#*:}" --seconds="$load_seconds" \
    >"$raw/load_$run.txt" || say "warning: the load run $run reported failures"
done
load() { awk -v k="$2" '$1 == k { print $2 }' "$raw/load_$1.txt"; }

# --- The table -------------------------------------------------------------------
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "nan" }'; }
le() { awk -v a="$1" -v b="$2" 'BEGIN { print (a <= b) ? "met" : "not met" }'; }
ge() { awk -v a="$1" -v b="$2" 'BEGIN { print (a >= b) ? "met" : "not met" }'; }
fmt() { awk -v v="$1" -v d="${2:-3}" 'BEGIN { printf "%.*f", d, v }'; }
per_second() { awk -v ns="$1" 'BEGIN { if (ns > 0) printf "%.3g", 1e9 / ns; else print "nan" }'; }

echo "| Area | Measure | Median | Compared with | Its median | Ratio | Goal | Result |"
echo "|---|---|---|---|---|---|---|---|"
for where in tmpfs disk; do
  for k in wall cpu; do
    u=$(extract_median $where untgz_file $k) f=$(extract_median $where floor $k)
    b=$(extract_median $where bsdtar $k) t=$(extract_median $where tar $k)
    w=$(extract_median $where write_floor $k)
    label="untgz_file, ${small_mb} MB, ${small_files} files, $where, $k s"
    goal_b="" goal_f="" goal_w="" res_b="" res_f="" res_w=""
    if [ $where = tmpfs ]; then
      goal_b="<= 0.9" goal_f="<= 1.3" goal_w="<= 1.15"
      res_b=$(le "$(ratio "$u" "$b")" 0.9) res_f=$(le "$(ratio "$u" "$f")" 1.3) res_w=$(le "$(ratio "$u" "$w")" 1.15)
    fi
    echo "| extraction | $label | $(fmt "$u") | bsdtar -xzf | $(fmt "$b") | $(ratio "$u" "$b") | $goal_b | $res_b |"
    echo "| extraction | $label | $(fmt "$u") | write floor (gzread, open, write, close; no checks) | $(fmt "$w") | $(ratio "$u" "$w") | $goal_w | $res_w |"
    echo "| extraction | $label | $(fmt "$u") | gzread floor (128 KB) | $(fmt "$f") | $(ratio "$u" "$f") | $goal_f | $res_f |"
    echo "| extraction | $label | $(fmt "$u") | tar -xzf (GNU) | $(fmt "$t") | $(ratio "$u" "$t") | | |"
  done
done
for where in tmpfs disk; do
  echo "| extraction | untgz_file user / system s, $where | $(fmt "$(extract_median $where untgz_file user)") / $(fmt "$(extract_median $where untgz_file system)") | gzread floor user / system | $(fmt "$(extract_median $where floor user)") / $(fmt "$(extract_median $where floor system)") | | | |"
  echo "| extraction | bsdtar user / system s, $where | $(fmt "$(extract_median $where bsdtar user)") / $(fmt "$(extract_median $where bsdtar system)") | | | | | |"
done
echo "| extraction | peak RSS, ${large_mb} MB archive, KB | $rss_large | ${small_mb} MB archive | $rss_small | $(ratio "$rss_large" "$rss_small") | does not grow (<= 1.05) | $(le "$(ratio "$rss_large" "$rss_small")" 1.05) |"

beat=$(gb heartbeat.json worker_beat) notify=$(gb heartbeat.json sd_notify_watchdog) floor=$(gb heartbeat.json lock_word_floor)
beat_cpu=$(gb heartbeat.json worker_beat cpu) notify_cpu=$(gb heartbeat.json sd_notify_watchdog cpu)
floor_cpu=$(gb heartbeat.json lock_word_floor cpu)
echo "| heartbeat | update_proc_beat_tick (worker, debug filtered), wall ns | $(fmt "$beat" 0) | | | | <= 500 ns | $(le "$beat" 500) |"
echo "| heartbeat | update_proc_beat_tick (worker, debug filtered), cpu ns | $(fmt "$beat_cpu" 0) | | | | <= 500 ns | $(le "$beat_cpu" 500) |"
echo "| heartbeat | update_proc_beat_tick, wall / cpu ns | $(fmt "$beat" 0) / $(fmt "$beat_cpu" 0) | sd_notify WATCHDOG=1 | $(fmt "$notify" 0) / $(fmt "$notify_cpu" 0) | $(ratio "$notify" "$beat") / $(ratio "$notify_cpu" "$beat_cpu") x faster | >= 5 x faster | $(ge "$(ratio "$notify" "$beat")" 5) / $(ge "$(ratio "$notify_cpu" "$beat_cpu")" 5) |"
echo "| heartbeat | update_proc_beat_tick, wall / cpu ns | $(fmt "$beat" 0) / $(fmt "$beat_cpu" 0) | lock word + tick floor | $(fmt "$floor" 0) / $(fmt "$floor_cpu" 0) | $(ratio "$beat" "$floor") / $(ratio "$beat_cpu" "$floor_cpu") | | |"
service=$(gb heartbeat.json service_beat_full_table)
echo "| heartbeat | service beat with 63 live entries (sweep), us | $(fmt "$(awk -v n="$service" 'BEGIN { print n / 1000 }')" 1) | | | | | |"
for run in $load_runs; do
  how="service and supervisor flat out"
  [ "${run#*:}" = 0 ] || how="service and supervisor every ${run#*:} ms"
  echo "| heartbeat load | $(load "$run" registered) registered, ${load_seconds} s, $how: worker beats per second | $(load "$run" worker_beats_per_second) | | | | | |"
  echo "| heartbeat load | worker beat latency p50 / p99 / max, us | $(load "$run" worker_beats_p50_us) / $(load "$run" worker_beats_p99_us) / $(load "$run" worker_beats_max_us) | | | | | |"
  echo "| heartbeat load | service beats per second, p50 / p99 / max us | $(load "$run" service_beats_per_second), $(load "$run" service_beats_p50_us) / $(load "$run" service_beats_p99_us) / $(load "$run" service_beats_max_us) | | | | | |"
  echo "| heartbeat load | supervisor scans per second, p50 / p99 us | $(load "$run" supervisor_scans_per_second), $(load "$run" supervisor_scans_p50_us) / $(load "$run" supervisor_scans_p99_us) | | | | | |"
  echo "| heartbeat load | results of -4 (workers / service / supervisor) | $(load "$run" timeouts) ($(load "$run" worker_beats_timeouts) / $(load "$run" service_beats_timeouts) / $(load "$run" supervisor_scans_timeouts)) | | | | 0 | $(le "$(load "$run" timeouts)" 0) |"
done

filtered=$(gb log.json filtered_statement) written=$(gb log.json written_statement) tstr=$(gb log.json time_string)
echo "| log frame | filtered statement per second | $(per_second "$filtered") | time string alone, ns | $(fmt "$tstr" 0) | $(ratio "$tstr" "$filtered") of it | | |"
echo "| log frame | statement written to the log file per second | $(per_second "$written") | | | | | |"

update=$(gb apphome.json record_update/real_time) wsr=$(gb apphome.json write_sync_rename_floor/real_time)
reduce=$(gb apphome.json reduction_scan/real_time)
echo "| app home | tarn_apphome_update (disk), us | $(fmt "$(awk -v n="$update" 'BEGIN { print n / 1000 }')" 0) | write+fsync+rename of 2 files | $(fmt "$(awk -v n="$wsr" 'BEGIN { print n / 1000 }')" 0) | $(ratio "$update" "$wsr") | | |"
echo "| app home | tarn_apphome_reduction_file, 1,000 candidates, ms | $(fmt "$(awk -v n="$reduce" 'BEGIN { print n / 1e6 }')" 1) | | | | | |"

echo "| parsing | load_com_info, 1,000 files, per second | $(per_second "$(gb parse.json load_manifest)") | | | | | |"
echo "| parsing | tarn_ini_file_load, the app home record (3 keys), per second | $(per_second "$(gb parse.json load_ini/3)") | | | | | |"
echo "| parsing | tarn_ini_file_load, 2,000 keys (139 KB), per second | $(per_second "$(gb parse.json load_ini/2000)") | | | | | |"
echo "| parsing | version_mgr_parser_version per second | $(per_second "$(gb parse.json parse_version)") | | | | | |"
echo "| parsing | argment_paras_create, 100 options, per second | $(per_second "$(gb parse.json create_arguments)") | | | | | |"
verify_ns=$(gb package_verify.json package_verify/real_time) verify_cpu=$(gb package_verify.json package_verify/real_time cpu)
sum_s=$(jq -r '.results[0].median' "$raw/sha256sum.json")
sum_cpu=$(jq -r '.results[0] | (.user + .system)' "$raw/sha256sum.json")
verify_s=$(awk -v n="$verify_ns" 'BEGIN { print n / 1e9 }') verify_cpu_s=$(awk -v n="$verify_cpu" 'BEGIN { print n / 1e9 }')
echo "| package check | tarn_package_verify, ${pkg_mb} MB, ${pkg_files} files, wall s | $(fmt "$verify_s") | sha256sum -c | $(fmt "$sum_s") | $(ratio "$sum_s" "$verify_s") x its speed | >= 0.8 x | $(ge "$(ratio "$sum_s" "$verify_s")" 0.8) |"
echo "| package check | tarn_package_verify, cpu s | $(fmt "$verify_cpu_s") | sha256sum -c user + system | $(fmt "$sum_cpu") | $(ratio "$sum_cpu" "$verify_cpu_s") x its speed | | |"
glock=$(gb glock.json glock_acquire_release) cas=$(gb glock.json atomic_cas_pair) flock=$(gb glock.json flock_pair)
robust=$(gb glock.json robust_mutex_pair) killed=$(gb glock.json glock_after_killed_waiters)
echo "| global lock | acquire + release, ns | $(fmt "$glock" 0) | CAS pair / robust mutex pair / flock pair | $(fmt "$cas" 0) / $(fmt "$robust" 0) / $(fmt "$flock" 0) | $(ratio "$glock" "$cas") / $(ratio "$glock" "$robust") / $(ratio "$glock" "$flock") | | |"
echo "| global lock | acquire + release after 1,000 waiters were killed waiting, ns | $(fmt "$killed" 0) | the same before | $(fmt "$glock" 0) | $(ratio "$killed" "$glock") | | |"
pid=$(gb glock.json process_get_pid) getpid=$(gb glock.json getpid_call)
echo "| process | tarn_process_get_pid, ns | $(fmt "$pid" 1) | getpid() | $(fmt "$getpid" 1) | $(ratio "$pid" "$getpid") | | |"
say "raw results in $raw"
