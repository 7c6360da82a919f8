#include "app/tuningarboapplication.h"

int main(int argc, char** argv)
{
    int exitCode = 1;
    {
        TuningArboApplication app(argc, argv);
        if (app.init()) {
            // A SIGTERM or Ctrl+C during start-up closed any message box that
            // was open and let start-up finish; the event loop would forget
            // it, so the program ends here, saving as always.
            exitCode = app.quitRequested() ? 0 : app.exec();
            app.term();
        }
    }
    return TuningArboApplication::leave(exitCode);
}
