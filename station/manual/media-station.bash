# Completion of media-station in bash: commands, options, and the values that are words.
_media_station() {
  local word command=() current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      inspect | doctor | record | grab | klv | serve | rtsp | http | run) command+=("$word") ;;
      *) break ;;
    esac
  done
  [[ $previous != = ]] || previous=${COMP_WORDS[COMP_CWORD - 2]}
  case $previous in
    --board) word="nvidia imx" ;;
    --codec) word="h264 h265 av1 mjpeg" ;;
    --fallback) word="silence noise disabled" ;;
    *)
      # The program's help has options and commands as the first words of indented lines.
      word=$("${COMP_WORDS[0]}" "${command[@]}" --help 2>/dev/null |
        sed -n -E '/^Exit codes/q; s/^  (-\w,)?(--[a-z-]+|[a-z]+)\>.*/\2/p' | grep -vx source)
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$word" -- "$current")
  [[ ${#COMPREPLY[@]} -gt 0 ]] || mapfile -t COMPREPLY < <(compgen -f -- "$current")
}
complete -o filenames -F _media_station media-station
