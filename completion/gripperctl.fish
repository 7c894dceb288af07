# fish completion for gripperctl. The program itself offers the words.

function __gripperctl_offer
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    set -l option (string match -r -- '^--[^=]+=' $word; or echo)
    set -l value (string replace -r -- '^--[^=]+=' '' $word)
    for offered in (command $words[1] completion -- $words[2..] "$word" 2>/dev/null </dev/null)
        switch $offered
            case :files
                printf '%s\n' $option(__fish_complete_path $value)
            case :hosts
                printf '%s\n' $option(__fish_print_hostnames)
            case '*'
                echo $offered
        end
    end
end

complete -c gripperctl -f -a '(__gripperctl_offer)'
