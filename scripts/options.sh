# The scripts source this file before they do anything else, so that a wrong option starts no build.

# answer_options "OPTION..." ARGUMENT...: prints the script's first comment for --help, and reports an option
# that the first argument does not list. Ends the script in both cases.
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
                echo "$0: unknown option $argument; see --help" >&2
                exit 2
            fi
            ;;
        esac
    done
}
