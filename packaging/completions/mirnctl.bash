# bash completion for mirnctl
_mirnctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local commands="devices doctor info set-name led key type mouse snapshot quality color watch upgrade latency channel"
  local globals="--json --virtual --verbose --help --version"
  local command="" word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      -*) ;;
      *) command=$word; break ;;
    esac
  done
  case $previous in
    --quality) COMPREPLY=($(compgen -W "720P 1080P" -- "$current")); return ;;
    --color) COMPREPLY=($(compgen -W "normal best" -- "$current")); return ;;
    --button) COMPREPLY=($(compgen -W "left right middle" -- "$current")); return ;;
    --plugin) COMPREPLY=($(compgen -W "main second" -- "$current")); return ;;
    --layout) COMPREPLY=($(compgen -W "us" -- "$current")); return ;;
    --screen) COMPREPLY=($(compgen -W "1920x1080 1280x720" -- "$current")); return ;;
  esac
  case $command in
    "") COMPREPLY=($(compgen -W "$commands $globals" -- "$current")) ;;
    led) COMPREPLY=($(compgen -W "get set $globals" -- "$current")) ;;
    mouse) COMPREPLY=($(compgen -W "move click wheel --screen --button --double --at $globals" -- "$current")) ;;
    key) COMPREPLY=($(compgen -W "--list enter esc tab space backspace ctrl+alt+del alt+tab alt+f4 win $globals" -- "$current")) ;;
    type) COMPREPLY=($(compgen -W "--skip --layout $globals" -- "$current")) ;;
    quality) COMPREPLY=($(compgen -W "720P 1080P --color --timeout $globals" -- "$current")) ;;
    color) COMPREPLY=($(compgen -W "normal best --quality --timeout $globals" -- "$current")) ;;
    watch) COMPREPLY=($(compgen -W "--count --seconds --no-time $globals" -- "$current")) ;;
    latency) COMPREPLY=($(compgen -W "--count --quality --color --answers-only $globals" -- "$current")) ;;
    channel) COMPREPLY=($(compgen -W "--plugin $globals" -- "$current")) ;;
    snapshot) COMPREPLY=($(compgen -f -X '!*.png' -- "$current") $(compgen -W "--quality --color --timeout $globals" -- "$current")) ;;
    upgrade) COMPREPLY=($(compgen -f -- "$current") $(compgen -W "--check --expect --replug $globals" -- "$current")) ;;
    *) COMPREPLY=($(compgen -W "$globals" -- "$current")) ;;
  esac
}
complete -o filenames -F _mirnctl mirnctl
