# bash completion for beaconctl

_beaconctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="discover watch view get set check record download scan rc gimbal shot restart
        reboot raw"
    local global="--host --port --timeout --version --help"
    local sections="info ethernet wifi camera display streaming recording video rc gimbal
        automovement zerotier system"
    local params="ethernet wlan streaming recording rec transcoding audio display tft_display osd
        cvbs hdmi app_type internal_camera rc gimbal fs_rw make_preview automovement zerotier"

    # In --host=ADDR, "=" is a word of its own.
    if [[ $cur == "=" ]]; then
        cur=""
    elif [[ $prev == "=" ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi

    # The words after the options: the command, and its arguments up to the one being typed.
    local -a words=()
    local i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --host | --port | --timeout | --type | --player | --seconds | --from | --revert-after)
            ((i++))
            if [[ ${COMP_WORDS[i]-} == "=" ]]; then
                ((i++))
            fi
            ;;
        -*) ;;
        *) words+=("${COMP_WORDS[i]}") ;;
        esac
    done
    local command=${words[0]-} count=${#words[@]}

    COMPREPLY=()
    case $prev in
    --host)
        mapfile -t COMPREPLY < <(compgen -A hostname -- "$cur")
        return
        ;;
    --port | --timeout | --seconds | --revert-after) return ;;
    --from)
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --player)
        mapfile -t COMPREPLY < <(compgen -W "ffplay mpv" -- "$cur")
        return
        ;;
    --type)
        mapfile -t COMPREPLY < <(compgen -W "video audio camera data" -- "$cur")
        return
        ;;
    esac

    # After "set PARAM ... NAME=": the values of that setting.
    if [[ $command == set ]] &&
        [[ ${COMP_WORDS[COMP_CWORD]} == "=" || ${COMP_WORDS[COMP_CWORD - 1]} == "=" ]]; then
        mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" set --words "${words[1]-}" 2> /dev/null |
            sed -n "s/^$prev=//p" | grep "^$cur")
        return
    fi

    local list="" files=no
    if [[ $cur == -* ]]; then
        list="--help --host --port --timeout"
        case $command in
        "") list=$global ;;
        get) list+=" --all --json" ;;
        discover | scan) list+=" --json" ;;
        view) list+=" --player --type" ;;
        set) list+=" --json --list --words --force --from --yes --revert-after" ;;
        watch) list+=" --once --json --no-streams" ;;
        rc) list+=" --once --json" ;;
        record) list+=" --type --seconds --raw --strict --timestamps --progress" ;;
        download) list+=" --resume --progress" ;;
        raw) list+=" --seconds" ;;
        reboot) list+=" --yes" ;;
        esac
    else
        case $command,$count in
        ,*) list=$commands ;;
        get,1) list=$sections ;;
        set,1) list=$params ;;
        set,2)
            case ${words[1]} in
            streaming) list="udp rtmp rtsp srt" ;;
            display) list="enabled hflip vflip aspect_ratio smooth dualhdmi" ;;
            tft_display) list="enabled model" ;;
            osd) list="enabled borders" ;;
            cvbs | hdmi) list="test testandsave" ;;
            automovement) list="params move movenext moveprev setstate" ;;
            zerotier) list="params join leave clear" ;;
            esac
            ;;
        record,1 | download,2 | check,1) files=yes ;;
        scan,1) list="int ext cam lan" ;;
        rc,1) list="calibrate" ;;
        rc,2) list="1 2" ;;
        esac
    fi
    if [[ $command == set && $count -ge 2 && $cur != -* ]]; then
        list+=" $("${COMP_WORDS[0]}" set --words "${words[1]}" 2> /dev/null | sed 's/=.*/=/' |
            sort -u | tr '\n' ' ')"
        compopt -o nospace 2> /dev/null
    fi
    if [[ $files == yes ]]; then
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$list" -- "$cur")
    fi
}

complete -F _beaconctl beaconctl
