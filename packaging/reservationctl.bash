# Completion of reservationctl for bash.

_reservationctl() {
    local cur prev words cword split
    _init_completion -s || return

    local connection='--address --tls-ca --tls-cert --tls-key --timeout --help'
    local command='' argument=0 i
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            -*=*) ;;
            --address | --tls-* | --timeout | --pkey | --guids | --nodes | --free | --among | --num-trees | --limit | --add | \
                --remove | --add-nodes | --remove-nodes | --add-free | --planes | --trees | --pkeys | --from | --count | \
                --start | --reservation | --min-age)
                ((i++))
                ;;
            -*) ;;
            *)
                case $command in
                    '' | job | pkeys) command+="${command:+ }${words[i]}" ;;
                    *) ((argument++)) ;;
                esac
                ;;
        esac
    done

    case $prev in
        --tls-ca | --tls-cert | --tls-key)
            _filedir
            return
            ;;
        --from)
            [ "$command" = 'job reconcile' ] && _filedir
            return
            ;;
        --guids | --add | --remove)
            if [[ $cur == @* ]]; then
                cur=${cur#@}
                _filedir
                COMPREPLY=("${COMPREPLY[@]/#/@}")
            fi
            return
            ;;
        --limit)
            COMPREPLY=($(compgen -W 'limit0= limit1= limit2= num_trees= limit4= limit5= limit6=' -- "$cur"))
            compopt -o nospace
            return
            ;;
        --address | --timeout | --pkey | --nodes | --free | --among | --num-trees | --add-nodes | --remove-nodes | \
            --add-free | --planes | --trees | --pkeys | --count | --start | --reservation | --min-age) return ;;
    esac

    local options='--json'
    case $command in
        '') options='--version' ;;
        create) options+=' --pkey --guids --nodes --free --among --num-trees --limit --auto-created --dry-run' ;;
        update) options+=' --add --remove --add-nodes --remove-nodes --add-free --among --dry-run' ;;
        delete) options+=' --dry-run' ;;
        list) options+=' --keys --no-nodes' ;;
        apply) options='--yes --dry-run' ;;
        job | pkeys) options='' ;;
        'job begin') options+=' --guids --nodes --planes --trees --start --reservation' ;;
        'job list') options+=' --no-nodes' ;;
        'job end') options+=' --start' ;;
        'job reconcile') options='--from --min-age --all --dry-run' ;;
        'pkeys report') options+=' --pkeys' ;;
        watch) options+=' --from --count' ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options $connection" -- "$cur"))
        return
    fi

    case $command in
        '') COMPREPLY=($(compgen -W 'create update delete list show apply job who nodes pkeys watch status' -- "$cur")) ;;
        job) COMPREPLY=($(compgen -W 'begin end list reconcile' -- "$cur")) ;;
        pkeys) COMPREPLY=($(compgen -W 'report' -- "$cur")) ;;
        apply) _filedir ;;
        create | update | delete | show | 'job list')
            ((argument == 0)) || return
            # A short time limit: nobody waits for a daemon that does not answer. Not compgen -W, which would let the
            # shell expand what is in the keys.
            local key
            while IFS= read -r key; do
                [[ $key == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$key")")
            done < <("${words[0]}" list --keys --timeout 1 2>/dev/null)
            ;;
    esac
}

complete -F _reservationctl reservationctl
