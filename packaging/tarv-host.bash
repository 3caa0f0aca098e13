# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
# shellcheck shell=bash
#
# Completion for tarv-host. What can follow is taken from the program's own lists of options, so
# that it is never out of date.

# _tarv_host_verbs PROGRAM
_tarv_host_verbs() {
    "$1" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z-]*\) .*/\1/p'
}

# _tarv_host_options PROGRAM VERB: a line an option, its long name first, then what it takes.
_tarv_host_options() {
    "$1" "$2" --help 2>/dev/null |
        sed -nE 's/^  (-[a-zA-Z],)?(--[a-z-]+)( ([^ ]+))?( .*)?$/\2 \4/p'
}

# _tarv_host_verb WORD...: the first of the words that is a verb.
_tarv_host_verb() {
    local word verbs
    verbs=" $(_tarv_host_verbs "$1" | tr '\n' ' ')"
    for word in "${@:2}"; do
        [[ $verbs != *" $word "* ]] || { printf '%s\n' "$word"; return; }
    done
}

# _tarv_host_values TYPE WORD: of what an option takes, that which begins so.
_tarv_host_values() {
    case $1 in
        *'|'*) compgen -W "${1//|/ }" -- "$2" ;;
        DIR) compgen -d -- "$2" ;;
        FILE*) compgen -f -- "$2" ;;
    esac
}

_tarv_host() {
    local program=${COMP_WORDS[0]} word=${COMP_WORDS[COMP_CWORD]}
    local previous=${COMP_WORDS[COMP_CWORD - 1]} verb options type
    verb=$(_tarv_host_verb "$program" "${COMP_WORDS[@]:1:COMP_CWORD-1}")
    if [ -z "$verb" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_tarv_host_verbs "$program") --help --version" -- "$word")
        return
    fi
    options=$(_tarv_host_options "$program" "$verb")
    type=$(awk -v option="$previous" '$1 == option { print $2 }' <<<"$options")
    if [ -n "$type" ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(_tarv_host_values "$type" "$word")
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(cut -d' ' -f1 <<<"$options")" -- "$word")
    elif [ "$verb" = top ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
    elif [ "$verb" = fabric ]; then
        mapfile -t COMPREPLY < <(compgen -W "dot svg" -- "$word")
    elif [ "$verb" = script ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}

complete -F _tarv_host tarv-host
