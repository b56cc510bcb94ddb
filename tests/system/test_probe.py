import subprocess
def test_probe():
    r = subprocess.run(["systemctl", "start", "vexa.service"])
    assert r.returncode == 0
    print(subprocess.run(["systemctl","show","-p","ActiveState","vexa.service"],capture_output=True,text=True).stdout)
def test_env():
    print(subprocess.run(["systemctl","show","-p","Environment","vexa.service"],capture_output=True,text=True).stdout)
    print(subprocess.run(["getent","group","vexa"],capture_output=True,text=True).stdout)
    assert False
