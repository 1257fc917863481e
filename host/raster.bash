# Completion of raster(1) for bash.

_raster() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= word
    local commands="info convert resize thumbnail composite document profile"
    local actions="create info extract fill stamp flatten compact verify salvage"
    local global="--memory --decode-limit --backstore --threads --verbose --quiet --stats --version --help"
    local reading="--strict --assume-profile"
    local writing="--type --quality --progressive --dpi --strip-alpha --background --no-clobber --force"
    COMPREPLY=()

    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case " $commands " in *" $word "*) command=$word; break ;; esac
    done

    case $previous in
        --type) mapfile -t COMPREPLY < <(compgen -W "jpeg png" -- "$current"); return ;;
        --format)
            mapfile -t COMPREPLY < <(
                compgen -W "RGBA8 RGBA16 IA8 IA16 CMYKA8 LABA16 A8 A16 RGBAUF AF" -- "$current")
            return ;;
        --intent) mapfile -t COMPREPLY < <(compgen -W "perceptual relative saturation absolute" -- "$current"); return ;;
        --background | --colour) mapfile -t COMPREPLY < <(compgen -W "white black" -- "$current"); return ;;
        --out | --backstore) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
        --profile | --assume-profile) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        --memory | --decode-limit | --threads | --quality | --dpi | --width | --height | --size | --at | --rotate | \
            --scale | --opacity | --layer | --rect)
            return ;;
    esac

    if [[ $current == -* ]]; then
        local options=$global
        case $command in
            info) options+=" --json" ;;
            convert) options+=" $reading $writing --format --profile --intent --bpc --auto-orient" ;;
            resize) options+=" $reading $writing --width --height --scale --stretch --auto-orient" ;;
            thumbnail) options+=" $reading --size --out --quality --no-clobber" ;;
            document)
                options+=" $reading $writing --json --original --layer --rect --colour --at --opacity --keep-damaged" ;;
            composite) options+=" $reading $writing --at --rotate --scale --opacity --auto-orient" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    elif [[ $command == document && $previous == document ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$actions" -- "$current")
    elif [[ $command == profile && $previous == profile ]]; then
        mapfile -t COMPREPLY < <(compgen -W "list show" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -o filenames -F _raster raster
