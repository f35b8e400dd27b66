# bash completion for quillane-cli: verbs, their options, format names and files.
# Stands alone (no bash-completion helpers needed), so that it also works when sourced by hand.

_quillane_cli() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  # --name=VALUE: bash splits it at "=", so that the option is one word further back.
  if [[ $cur == = ]]; then
    cur=""
  elif [[ $prev == = ]] && ((COMP_CWORD > 1)); then
    prev=${COMP_WORDS[COMP_CWORD-2]}
  fi
  local verbs="inspect analyze compress" verb="" i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      inspect | analyze | compress) verb=${COMP_WORDS[i]}; break ;;
    esac
  done

  case $prev in
    --format)
      COMPREPLY=($(compgen -W "png jpeg heic avif webp jxl" -- "$cur"))
      return ;;
    --to)
      compopt -o filenames 2>/dev/null || true
      COMPREPLY=($(compgen -d -- "$cur"))
      return ;;
    --quality | --profile | --max-width | --max-height | --max-bytes)
      COMPREPLY=()
      return ;;
  esac

  if [[ -z $verb ]]; then
    COMPREPLY=($(compgen -W "$verbs --help --version" -- "$cur"))
    return
  fi

  if [[ $cur == -* ]]; then
    local options="--help"
    case $verb in
      analyze) options+=" --quality" ;;
      compress) options+=" --to --format --quality --profile --max-width --max-height --max-bytes --skip-larger" ;;
    esac
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
    return
  fi
  compopt -o filenames 2>/dev/null || true
  COMPREPLY=($(compgen -f -- "$cur"))
}

complete -F _quillane_cli quillane-cli
