// SPDX-License-Identifier: MIT
// Prints the type sizes that the flash tool's SPI transfers depend on, emits
// a Qt signal through moc-generated code and logs one record with log4cplus.
#include <linux/spi/spidev.h>

#include <QCoreApplication>
#include <QObject>
#include <QtGlobal>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/version.h>

#include <ctime>
#include <iostream>
#include <memory>

class Emitter : public QObject {
    Q_OBJECT
signals:
    void valueChanged(int value);
};

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    std::cout << "long=" << sizeof(long) << " time_t=" << sizeof(std::time_t)
              << " spi_ioc_transfer=" << sizeof(spi_ioc_transfer) << " pointer=" << sizeof(void*) << "\n";

    Emitter emitter;
    int received = 0;
    QObject::connect(&emitter, &Emitter::valueChanged, [&received](int value) { received = value; });
    emit emitter.valueChanged(42);
    std::cout << "qt=" << qVersion() << " moc-signal=" << received << std::endl;

    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender());
    console->setLayout(std::make_unique<log4cplus::PatternLayout>("%p %c %m%n"));
    log4cplus::Logger logger = log4cplus::Logger::getInstance("probe");
    logger.addAppender(console);
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    LOG4CPLUS_INFO(logger, "log4cplus " << LOG4CPLUS_VERSION << " works");
    return received == 42 ? 0 : 1;
}

#include "ToolchainProbe.moc"
