# bash completion for tovrel-play
_tovrel_play() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options='--volume --pan --eq --start --duration --shuffle --repeat --once --line --json
        --no-input --record --rate --channels --version -h --help'
    case $previous in
    --volume | --pan | --eq | --start | --duration | --rate | --channels) return ;;
    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        compopt -o filenames
    fi
}
complete -F _tovrel_play tovrel-play
