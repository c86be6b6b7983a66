@echo off
rem Prints one JSON object, which becomes a record as it is. The arguments are the agent's key, the record's name and the time.
echo { "AGENTKEY": "%~1", "DATACOLLECTTIME": "%~3", "ERRORMSG": "NO ERROR", "%~2": [ { "Computer": "%COMPUTERNAME%", "Processors": "%NUMBER_OF_PROCESSORS%", "System": "%OS%" } ] }
