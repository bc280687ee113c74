# bash completion for kronlog(1). The option lists match 'kronlog <command>
# --help'; a test keeps them in step.

_kronlog() {
  local cur prev command
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD-1]}
  command=${COMP_WORDS[1]}
  if [ "$COMP_CWORD" -eq 1 ]; then
    COMPREPLY=($(compgen -W "show check demo emit follow collect help --help --version" -- "$cur"))
    return
  fi
  case $prev in
    --store|--socket)
      COMPREPLY=($(compgen -f -- "$cur"))
      return ;;
    -o|--output)
      if [ "$command" = follow ]; then
        COMPREPLY=($(compgen -W "short json jsonl" -- "$cur"))
      else
        COMPREPLY=($(compgen -W "short cat json jsonl" -- "$cur"))
      fi
      return ;;
    --fields)
      COMPREPLY=($(compgen -W "time agent group message time,agent,group,message" -- "$cur"))
      return ;;
    --since|--until)
      COMPREPLY=($(compgen -W "now today yesterday -15m -1h -1d" -- "$cur"))
      return ;;
    --keep)
      COMPREPLY=($(compgen -W "first last" -- "$cur"))
      return ;;
    --agent|--group|-g|--grep|-n|--lines|--size|--every)
      return ;;
  esac
  local options
  case $command in
    show)
      options="--store --agent --group -g --grep -i --case-insensitive --since --until -n --lines
               -r --reverse -o --output --fields --localtime --no-color --no-pager --help" ;;
    check|demo)
      options="--store --help" ;;
    emit)
      options="--agent --group --socket --size --keep --help" ;;
    collect)
      options="--socket --store --every --help" ;;
    follow)
      options="--socket --agent --group -n --lines -o --output --exit-on-close --help" ;;
    help)
      options="show check demo emit follow collect" ;;
  esac
  COMPREPLY=($(compgen -W "$options" -- "$cur"))
}
complete -o default -F _kronlog kronlog
