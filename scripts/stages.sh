# Sourced by a script that reports the time of its stages: it calls begin_stage for each stage and print_stages
# at the end.

stage_names=()
stage_starts=()

# Sets `used` to the milliseconds of processor time that all commands so far and their children used, and
# `clock` to the present time in milliseconds.
take_times() {
    local file part
    file=$(mktemp)
    # A subshell would print its own.
    times >"$file"
    used=0
    for part in $(tail -n 1 "$file"); do
        part=${part%s}
        used=$((used + ${part%m*} * 60000 + 10#$(tr -d '.,' <<<"${part#*m}")))
    done
    rm -f "$file"
    clock=$((${EPOCHREALTIME//[.,]/} / 1000))
}

# begin_stage NAME: also ends the previous stage.
begin_stage() {
    local used clock
    take_times
    stage_names+=("$1")
    stage_starts+=("$used $clock")
}

# print_stage NAME "USED CLOCK" "USED CLOCK": prints one line with the differences.
print_stage() {
    local used_before clock_before used clock
    read -r used_before clock_before <<<"$2"
    read -r used clock <<<"$3"
    used=$((used - used_before)) clock=$((clock - clock_before))
    printf '  %-16s %7d.%d s %7d.%d s\n' "$1" \
        $((used / 1000)) $((used % 1000 / 100)) $((clock / 1000)) $((clock % 1000 / 100))
}

# Prints a table of the stages: the processor time of all their processes, and the elapsed time.
print_stages() {
    local used clock stage ends
    take_times
    ends=("${stage_starts[@]:1}" "$used $clock")
    printf '%-18s %11s %11s\n' "Stage" "Processor" "Elapsed"
    for stage in "${!stage_names[@]}"; do
        print_stage "${stage_names[stage]}" "${stage_starts[stage]}" "${ends[stage]}"
    done
    print_stage "all" "${stage_starts[0]}" "$used $clock"
}
