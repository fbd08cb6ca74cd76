# bash completion for beaconctl

_beaconctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="watch get set record download scan rc gimbal shot restart reboot raw"
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

    # The words behind the options: the command and its arguments before the one being typed.
    local -a words=()
    local i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --host | --port | --timeout | --type | --seconds)
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
    --port | --timeout | --seconds) return ;;
    --type)
        mapfile -t COMPREPLY < <(compgen -W "video audio camera data" -- "$cur")
        return
        ;;
    esac

    local list="" files=no
    if [[ $cur == -* ]]; then
        list="--help --host --port --timeout"
        case $command in
        "") list=$global ;;
        get | set | scan) list+=" --json" ;;
        watch | rc) list+=" --once --json" ;;
        record) list+=" --type --seconds" ;;
        download) list+=" --resume" ;;
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
        record,1 | download,2) files=yes ;;
        scan,1) list="int ext cam lan" ;;
        rc,1) list="calibrate" ;;
        rc,2) list="1 2" ;;
        esac
    fi
    if [[ $files == yes ]]; then
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$list" -- "$cur")
    fi
}

complete -F _beaconctl beaconctl
