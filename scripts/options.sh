# Sourced by the scripts before they do anything: an option that is asked for by mistake starts no build.

# answer_options "OPTION..." ARGUMENT...: prints the script's first comment for --help, and names an option
# that is not among the first word's. Ends the script in either case.
answer_options() {
    local known=" $1 " argument
    shift
    for argument in "$@"; do
        case $argument in
        -h | --help)
            sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
            exit 0
            ;;
        -*)
            if [[ $known != *" $argument "* ]]; then
                echo "$0: there is no option $argument; --help says what there is" >&2
                exit 2
            fi
            ;;
        esac
    done
}
