#include "app/tuningarboapplication.h"

int main(int argc, char** argv)
{
    TuningArboApplication app(argc, argv);
    if (!app.init()) {
        return 1;
    }
    const int exitCode = app.exec();
    app.term();
    return exitCode;
}
