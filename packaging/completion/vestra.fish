# fish completion for vestra-stat, vestra-dump, vestra-set and vestra-key: the programs know what may come next.

function __vestra_complete
    set -l words (commandline -opc) (commandline -ct)
    for line in ($words[1] --complete $words[2..-1] 2>/dev/null)
        if test "$line" = :files
            __fish_complete_path (commandline -ct)
        else
            printf '%s\n' $line
        end
    end
end

for program in vestra-stat vestra-dump vestra-set vestra-key
    complete -c $program -f -a '(__vestra_complete)'
end
