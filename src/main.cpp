#include "app/tuningarboapplication.h"

int main(int argc, char** argv)
{
    int exitCode = 1;
    {
        TuningArboApplication app(argc, argv);
        if (app.init()) {
            exitCode = app.exec();
            app.term();
        }
    }
    return TuningArboApplication::leave(exitCode);
}
