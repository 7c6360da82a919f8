#pragma once

#include "ui/mainwindow.h"
