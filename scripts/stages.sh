# Sourced by a script that reports the time of its stages: it runs each by run_stage, or by start_stage and
# finish_stages, and calls print_stages at the end.

stage_folder=$(mktemp -d)
stage_count=0
stage_group=

# Reads a line of the output of `times`, and prints the milliseconds.
processor_milliseconds() {
    local part used=0
    for part in $(cat); do
        part=${part%s}
        used=$((used + ${part%m*} * 60000 + 10#$(tr -d '.,' <<<"${part#*m}")))
    done
    echo "$used"
}

# Prints the present time in milliseconds.
clock_milliseconds() {
    echo $((${EPOCHREALTIME//[.,]/} / 1000))
}

# Runs in a subshell, whose times are those of the stage: stage_command FILE NAME COMMAND...
stage_command() {
    # The trap needs these after the function has returned; the subshell has them for itself.
    stage_file=$1 stage_name=$2 stage_start=$(clock_milliseconds)
    shift 2
    trap write_stage EXIT
    trap 'exit 143' TERM
    "$@"
}

# Writes the row of the stage, which may have failed.
write_stage() {
    # A subshell would print its own times.
    times >"$stage_file.times"
    echo "$(tail -n 1 "$stage_file.times" | processor_milliseconds)" \
        "$(($(clock_milliseconds) - stage_start)) $stage_name" >"$stage_file"
}

# run_stage NAME COMMAND...
run_stage() {
    stage_count=$((stage_count + 1))
    (stage_command "$stage_folder/$stage_count" "$@")
}

# Runs a stage beside those that follow, in a process group of its own: start_stage NAME COMMAND...
start_stage() {
    stage_count=$((stage_count + 1))
    set -m
    (stage_command "$stage_folder/$stage_count" "$@") &
    set +m
    stage_group=$!
}

# Waits for the stage that was started; fails if it failed.
finish_stage() {
    local status=0
    wait "$stage_group" || status=$?
    stage_group=
    return "$status"
}

# Ends a stage that is still running. For the end of the script.
stop_stage() {
    if [ -n "$stage_group" ]; then
        kill -- "-$stage_group" 2>/dev/null || true
        wait "$stage_group" 2>/dev/null || true
        stage_group=
    fi
}

# print_stage USED ELAPSED NAME: prints one line, from milliseconds.
print_stage() {
    printf '  %-16s %7d.%d s %7d.%d s\n' "$3" \
        $(($1 / 1000)) $(($1 % 1000 / 100)) $(($2 / 1000)) $(($2 % 1000 / 100))
}

# Prints a table of the stages that ended: the processor time of all their processes, and the elapsed time. Stages
# that ran side by side add up to more than the elapsed time of all.
print_stages() {
    local place used elapsed name sum=0
    printf '%-18s %11s %11s\n' "Stage" "Processor" "Elapsed"
    for ((place = 1; place <= stage_count; place++)); do
        if [ -s "$stage_folder/$place" ]; then
            read -r used elapsed name <"$stage_folder/$place"
            print_stage "$used" "$elapsed" "$name"
            sum=$((sum + used))
        fi
    done
    print_stage "$sum" "$(($(clock_milliseconds) - stages_begun))" "all"
    rm -rf "$stage_folder"
}

stages_begun=$(clock_milliseconds)
