# fish completion for mirnctl
set -l commands devices doctor info set-name led key type mouse snapshot quality color watch upgrade latency channel
complete -c mirnctl -f
complete -c mirnctl -n "not __fish_seen_subcommand_from $commands" -a "$commands"
complete -c mirnctl -l json -d "JSON instead of text"
complete -c mirnctl -l virtual -d "A virtual Mirn"
complete -c mirnctl -l verbose -d "The library's own lines, too"
complete -c mirnctl -n "__fish_seen_subcommand_from led" -a "get set"
complete -c mirnctl -n "__fish_seen_subcommand_from mouse" -a "move click wheel"
complete -c mirnctl -n "__fish_seen_subcommand_from quality" -a "720P 1080P"
complete -c mirnctl -n "__fish_seen_subcommand_from color" -a "normal best"
complete -c mirnctl -n "__fish_seen_subcommand_from snapshot upgrade" -F
complete -c mirnctl -n "__fish_seen_subcommand_from upgrade" -l check -d "Only check the file"
