#pragma once

/// The scripts that teach a shell to complete the client's command lines. Each asks the client itself for
/// candidates (`tavrin __complete WORDS...`, see App::complete()) and offers files where there are none.
namespace CompletionScript {
extern const char* const BASH;
extern const char* const ZSH;
extern const char* const FISH;
} // namespace CompletionScript
