# bash completion for quillvane. Browser and rule ids come from the running
# Quillvane ("quillvane browsers", "quillvane rules"); without one, only the
# fixed words complete.

_quillvane_first_column()
{
    quillvane "$@" 2>/dev/null | while read -r id _; do printf '%s\n' "$id"; done
}

_quillvane()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD-1]}
    local command=${COMP_WORDS[1]}
    local words=""

    if [[ $COMP_CWORD -eq 1 ]]; then
        words="route rules rule browsers fallback feature explain history doctor config handoffs handoff --action --help --version"
    else
        case $prev in
        --browser)
            words=$(_quillvane_first_column browsers) ;;
        --action)
            [[ $COMP_CWORD -eq 2 ]] && words="route-clipboard list-browsers create-rule" ;;
        --app | --app-name | --pattern | --from | --limit)
            return 0 ;;
        esac
        if [[ -z $words ]]; then
            # The position among the command's own words.
            local position=$((COMP_CWORD - 1))
            case $command in
            route) words="--browser --help" ;;
            rules | browsers) words="--json --help" ;;
            doctor) words="--json --help" ;;
            history) words="--json --limit --help" ;;
            handoffs) words="--json --help" ;;
            handoff)
                case $position in
                1) words="zoom teams spotify slack discord telegram element steam --help" ;;
                2) words="on off" ;;
                esac ;;
            config)
                if [[ $COMP_CWORD -eq 2 ]]; then
                    words="path check export import --help"
                else
                    [[ ${COMP_WORDS[2]} == import ]] && words="--yes"
                    words+=" --help"
                    # A file to check, export to or import.
                    [[ ${COMP_WORDS[2]} != path ]] && {
                        local IFS=$'\n'
                        COMPREPLY=($(compgen -f -- "$cur") $(compgen -W "$words" -- "$cur"))
                        return 0
                    }
                fi ;;
            explain) words="--from --expand --help" ;;
            fallback)
                [[ $position -eq 1 ]] && words=$(_quillvane_first_column browsers)
                words+=" --ask --help" ;;
            feature)
                case $position in
                1) words="urlCleaning urlExpansion launchAtLogin pauseRules urlUnwrapping preferRunningBrowser --help" ;;
                2) words="on off" ;;
                esac ;;
            rule)
                position=$((COMP_CWORD - 2))
                if [[ $COMP_CWORD -eq 2 ]]; then
                    words="add delete --help"
                elif [[ ${COMP_WORDS[2]} == add ]]; then
                    words="--browser --app --app-name --pattern --profile --private --ask --help"
                elif [[ ${COMP_WORDS[2]} == delete ]]; then
                    [[ $position -eq 1 ]] && words=$(_quillvane_first_column rules)
                    words+=" --yes --help"
                fi ;;
            esac
        fi
    fi
    local IFS=$'\n'
    COMPREPLY=($(compgen -W "${words//[[:space:]]/$'\n'}" -- "$cur"))
}

complete -F _quillvane quillvane
