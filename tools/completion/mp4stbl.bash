# bash completion for mp4stbl: the subcommands, the options of each, the
# values some options take, and files.

# _mp4stbl_options SUBCOMMAND: the options SUBCOMMAND takes besides the
# global ones.
_mp4stbl_options() {
  local written="-o --output -y --overwrite"
  case "$1" in
    info | verify) echo "" ;;
    dump) echo "--entries" ;;
    samples) echo "--track" ;;
    seek) echo "--track --time --sample --end-time --end-sample --after" ;;
    trim) echo "--from --to $written --keyframe --moov-last" ;;
    join) echo "--list $written --moov-last" ;;
    remux) echo "$written --moov-last" ;;
    record)
      echo "$written --video --audio --alaw --ulaw --rate --fps --fragment --chunk --plain" \
        "--moov-first --sync"
      ;;
    recover) echo "$written --reference" ;;
    report) echo "$written --track" ;;
    extract) echo "--track $written --from --to" ;;
  esac
}

_mp4stbl() {
  local subcommands="info dump samples seek verify trim join remux record recover report extract"
  local global="-h --help --json -v --verbose -q --quiet"
  local cur="${COMP_WORDS[COMP_CWORD]}" prev="${COMP_WORDS[COMP_CWORD - 1]}"
  local subcommand="" word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ " $subcommands " == *" $word "* ]]; then
      subcommand="$word"
      break
    fi
  done
  COMPREPLY=()
  if [ -z "$subcommand" ]; then
    if [[ "$cur" == -* ]]; then
      mapfile -t COMPREPLY < <(compgen -W "$global --version" -- "$cur")
    else
      mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$cur")
    fi
    return
  fi
  case "$prev" in
    --track)
      mapfile -t COMPREPLY < <(compgen -W "video audio" -- "$cur")
      return
      ;;
    --entries)
      mapfile -t COMPREPLY < <(compgen -W "all" -- "$cur")
      return
      ;;
    --time | --sample | --end-time | --end-sample | --from | --to | --rate | --fps | --fragment | \
      --chunk)
      return
      ;;
  esac
  if [[ "$cur" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_mp4stbl_options "$subcommand") $global" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}

complete -o filenames -F _mp4stbl mp4stbl
