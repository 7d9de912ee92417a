// The program that takes files apart, for those that must not be harmed by what is in them.
#include "reader/inside/picture.h"
#include "reader/inside/playlist.h"
#include "reader/inside/serve.h"
#include "reader/inside/sheet.h"
#include "reader/inside/sound/foreign_sound.h"
#include "reader/inside/sound/sound_work.h"
#include "reader/inside/tags.h"

int main(int argc, char** argv) {
    using namespace nuvio::reader;
    SoundWork sound;
    return serve(argc, argv,
                 {.tags = read_tags,
                  .picture = read_picture,
                  .playlist = read_playlist,
                  .sheet = read_sheet,
                  .sound = &sound,
                  .load_module = load_foreign_sound});
}
