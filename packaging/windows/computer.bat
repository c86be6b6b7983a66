@echo off
rem Prints one JSON object, which becomes a record as it is.
echo { "computer": "%COMPUTERNAME%", "processors": "%NUMBER_OF_PROCESSORS%", "system": "%OS%" }
