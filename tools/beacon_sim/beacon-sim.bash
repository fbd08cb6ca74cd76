# Completion of beacon-sim's command line in bash.

_beacon_sim() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
    --video)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    --sticks)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -W circle -- "$word"; compgen -f -- "$word")
        return
        ;;
    --record)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
        return
        ;;
    --ring)
        mapfile -t COMPREPLY < <(compgen -W "main transcoding" -- "$word")
        return
        ;;
    --size)
        mapfile -t COMPREPLY < <(compgen -W "640x360 1280x720 1920x1080" -- "$word")
        return
        ;;
    --rate | --bitrate) return ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "--video --once --size --rate --bitrate --ring --no-video
        --no-telemetry --no-audio --keys --sticks --record --version --help" -- "$word")
}

complete -F _beacon_sim beacon-sim
